// The framework runtime library's message catalogues over ICU resource
// bundles.
//
// A catalogue "<name>" is a directory of compiled bundles (root.res, de.res,
// ...) under "<catalogue root>/<name>/". The catalogue root is
// FIKIV_CATALOG_PATH when set, otherwise the "catalogs" directory next to
// this library.
#include "tarn/msgcatalog.h"

#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include <unicode/ures.h>
#include <unicode/utypes.h>

namespace {

// The directory that holds the catalogue directories.
std::string catalogueRoot() {
    const char* configured = std::getenv("FIKIV_CATALOG_PATH");
    if (configured != nullptr && configured[0] != '\0') {
        return configured;
    }
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&catalogueRoot), &info) == 0 || info.dli_fname == nullptr) {
        return "catalogs";
    }
    std::string library(info.dli_fname);
    std::size_t slash = library.rfind('/');
    std::string directory = slash == std::string::npos ? "." : library.substr(0, slash);
    return directory + "/catalogs";
}

// Opens `locale` of the bundle directory `path`, falling back along the
// locale's parents to root. ICU would otherwise try the process's default
// locale before root, so a catalogue's language would depend on the
// environment the host runs in. A name ICU cannot take as a locale at all
// (longer than a locale id may be, for one) has no bundle either: root.
UResourceBundle* openBundle(const std::string& path, const char* locale) {
    UErrorCode status = U_ZERO_ERROR;
    UResourceBundle* bundle = ures_open(path.c_str(), locale, &status);
    if (U_SUCCESS(status) && status != U_USING_DEFAULT_WARNING) {
        return bundle;
    }
    if (U_SUCCESS(status)) {
        // Nothing of the requested locale exists: make sure this is root and
        // not the default locale.
        UErrorCode localeStatus = U_ZERO_ERROR;
        const char* actual = ures_getLocaleByType(bundle, ULOC_ACTUAL_LOCALE, &localeStatus);
        if (U_SUCCESS(localeStatus) && actual != nullptr && std::strcmp(actual, "root") == 0) {
            return bundle;
        }
        ures_close(bundle);
    }
    status = U_ZERO_ERROR;
    bundle = ures_openDirect(path.c_str(), "root", &status);
    if (U_FAILURE(status)) {
        return nullptr;
    }
    return bundle;
}

}  // namespace

tarp_IcuMsgCatalog::tarp_IcuMsgCatalog(const char* catalogName, const char* localeName,
                                       bool /*flag*/) {
    if (catalogName == nullptr || catalogName[0] == '\0') {
        return;
    }
    // A trailing slash makes ICU read the path as a directory of .res files
    // rather than as a package name.
    std::string path = catalogueRoot() + "/" + catalogName + "/";
    const char* locale = localeName == nullptr || localeName[0] == '\0' ? "root" : localeName;
    // ICU makes the bundle's file name from the locale as given, so a name
    // with a path separator ("../libfikiv/de", "/tmp/x") would open a file
    // outside the catalogue. No locale id contains one: such a name has no
    // bundle, and the catalogue is root.
    if (std::strpbrk(locale, "/\\") != nullptr) {
        locale = "root";
    }
    bundle_ = openBundle(path, locale);
}

tarp_IcuMsgCatalog::~tarp_IcuMsgCatalog() {
    if (bundle_ != nullptr) {
        ures_close(bundle_);
    }
}

const char16_t* tarp_IcuMsgCatalog::lookup(const char* id) {
    if (bundle_ == nullptr || id == nullptr) {
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    auto cached = cache_.find(id);
    if (cached != cache_.end()) {
        return cached->second.c_str();
    }
    UErrorCode status = U_ZERO_ERROR;
    std::int32_t length = 0;
    const UChar* text = ures_getStringByKey(bundle_, id, &length, &status);
    if (U_FAILURE(status) || text == nullptr) {
        return nullptr;
    }
    auto inserted = cache_.emplace(id, std::u16string(text, static_cast<std::size_t>(length)));
    return inserted.first->second.c_str();
}

const char16_t* tarp_IcuMsgCatalog::getCachedMsg(const char* id, bool /*flag*/) {
    return lookup(id);
}

const char16_t* tarp_IcuMsgCatalog::getCachedMsg(const char* id, const char16_t* defaultText) {
    const char16_t* text = lookup(id);
    return text != nullptr ? text : defaultText;
}

tarp_MsgCatalog::tarp_MsgCatalog(const char* catalogName, const char* localeName, bool flag)
    : tarp_IcuMsgCatalog(catalogName, localeName, flag) {}

tarp_MsgCatalog::~tarp_MsgCatalog() = default;
