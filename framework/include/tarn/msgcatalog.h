// The framework runtime library's message catalogues (libtarnrt.so).
//
// A catalogue is an ICU resource bundle "<name>" in a locale, compiled from
// framework/catalogs at build time and installed in the "catalogs" directory
// next to libtarnrt.so (or in FIKIV_CATALOG_PATH when set). Message texts are
// ICU MessageFormat patterns keyed by narrow ids. A locale without a bundle
// falls back along its parents to root (never to the process's default
// locale), and an id missing in a locale is taken from its parents; a missing
// catalogue or id gives null (or the default text), never an error.
//
// A catalogue caches each text it hands out; the pointers stay valid until the
// catalogue is destroyed. Lookups are thread-safe.
#ifndef FRAMEWORK_INCLUDE_TARN_MSGCATALOG_H_
#define FRAMEWORK_INCLUDE_TARN_MSGCATALOG_H_

#include <map>
#include <memory>
#include <mutex>
#include <string>

#define TARN_RT_API __attribute__((visibility("default")))

struct UResourceBundle;

class TARN_RT_API tarp_IcuMsgCatalog {
  public:
    // Opens catalogue `catalogName` in `localeName` (null or empty: root).
    // `flag` is accepted for the framework's signature and not used.
    tarp_IcuMsgCatalog(const char* catalogName, const char* localeName, bool flag);
    virtual ~tarp_IcuMsgCatalog();
    tarp_IcuMsgCatalog(const tarp_IcuMsgCatalog&) = delete;
    tarp_IcuMsgCatalog& operator=(const tarp_IcuMsgCatalog&) = delete;

    // The pattern of `id`, or null when the catalogue has none (or `id` is
    // null). `flag` is not used.
    const char16_t* getCachedMsg(const char* id, bool flag);
    // The pattern of `id`, or `defaultText` when the catalogue has none.
    const char16_t* getCachedMsg(const char* id, const char16_t* defaultText);

    // True when the bundle was found (in the locale or its root).
    bool isOpen() const { return bundle_ != nullptr; }

  private:
    const char16_t* lookup(const char* id);

    UResourceBundle* bundle_ = nullptr;
    std::mutex mutex_;
    std::map<std::string, std::u16string> cache_;
};

class TARN_RT_API tarp_MsgCatalog : public tarp_IcuMsgCatalog {
  public:
    tarp_MsgCatalog(const char* catalogName, const char* localeName, bool flag);
    ~tarp_MsgCatalog() override;
};

#endif  // FRAMEWORK_INCLUDE_TARN_MSGCATALOG_H_
