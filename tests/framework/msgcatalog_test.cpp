// The runtime library's message catalogues: lookups, fallbacks, missing ids
// and catalogues, and the patterns the plug-in formats with ICU.
#include "tarn/msgcatalog.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <memory>
#include <string>
#include <vector>

#include <unicode/fmtable.h>
#include <unicode/locid.h>
#include <unicode/msgfmt.h>
#include <unicode/unistr.h>

#include "support/wide_text.h"

namespace {

using testsupport::utf8;

// Formats `pattern` with `arguments` the way the plug-in does.
std::u16string format(const char16_t* pattern, const std::vector<icu::Formattable>& arguments) {
    icu::UnicodeString result;
    UErrorCode status = U_ZERO_ERROR;
    icu::MessageFormat::format(icu::UnicodeString(pattern), arguments.data(),
                               static_cast<std::int32_t>(arguments.size()), result, status);
    EXPECT_TRUE(U_SUCCESS(status)) << u_errorName(status);
    return std::u16string(result.getBuffer(), static_cast<std::size_t>(result.length()));
}

icu::Formattable text(const char16_t* value) {
    return icu::Formattable(icu::UnicodeString(value));
}

icu::Formattable number(std::int32_t value) {
    return icu::Formattable(value);
}

// Sets ICU's default locale for the life of the object.
class ScopedDefaultLocale {
  public:
    explicit ScopedDefaultLocale(const char* locale) : previous_(icu::Locale::getDefault()) {
        UErrorCode status = U_ZERO_ERROR;
        icu::Locale::setDefault(icu::Locale(locale), status);
        EXPECT_TRUE(U_SUCCESS(status)) << u_errorName(status);
    }
    ~ScopedDefaultLocale() {
        UErrorCode status = U_ZERO_ERROR;
        icu::Locale::setDefault(previous_, status);
    }

  private:
    icu::Locale previous_;
};

// Every use of a plug-in message reads whole in root (word for word) and in
// German (no placeholder left, names shown, numbers ungrouped). A locale
// without a bundle reads as its parent or root, never as the process default
// (German here); a name with a path in it cannot open a file outside.
TEST(MsgCatalogTest, EveryUseOfAPluginMessageReadsWholeInEveryLocale) {
    struct Row {
        const char* id;
        std::vector<icu::Formattable> arguments;
        std::u16string root;
        std::vector<std::u16string> shown;  // in every locale
    };
    const icu::Formattable busy = text(u"Retrived handle after every second for 30 times");
    // clang-format off
    const std::vector<Row> rows = {
        {"MSG_ERROR_KIVAPI", {text(u"KIV_Open"), number(4101), text(u"E:\\")}, u"The snapshot driver cannot open the volume E:\\ (KIV_Open answered 4101).", {u"E:\\", u"4101"}},
        {"MSG_ERROR_KIVAPI", {text(u"KIV_Create"), number(5), text(u"KIV_Create")}, u"The snapshot driver could not create the snapshot (KIV_Create answered 5); no snapshot was made.", {u"KIV_Create"}},
        {"MSG_ERROR_KIVAPI", {text(u"KIV_Prepare"), number(32), text(u"KIV_Prepare")}, u"The snapshot driver refused to prepare the snapshot (KIV_Prepare answered 32: a cache file name is in use by another snapshot).", {u"KIV_Prepare", u"32"}},
        {"MSG_ERROR_KIVAPI", {text(u"KIV_Prepare"), number(87), text(u"KIV_Prepare")}, u"The snapshot driver refused to prepare the snapshot (KIV_Prepare answered 87).", {u"87"}},
        {"MSG_ERROR_KIVAPI", {text(u"KIV_Destroy"), number(5), text(u"\\\\?\\snap1")}, u"The snapshot driver could not remove the snapshot volume \\\\?\\snap1 (KIV_Destroy answered 5); it still exists.", {u"\\\\?\\snap1"}},
        {"MSG_ERROR_KIVAPI", {text(u"KIV_GetVolumeInformation"), number(0), text(u"\\\\?\\Volume{x} - KIV_ATTRIBUTE_DISABLED")}, u"The snapshot driver does not offer this volume for snapshots: \\\\?\\Volume{x} - KIV_ATTRIBUTE_DISABLED.", {u"KIV_ATTRIBUTE_DISABLED"}},
        {"MSG_ERROR_KIVAPI", {text(u"KIV_ORB_Registervolume"), number(2), text(u"snap2")}, u"The snapshot volume snap2 could not be handed to the backup agent (status 2: no backup agent is running).", {u"snap2"}},
        {"MSG_ERROR_KIVAPI", {text(u"ORB::ReleaseVolumeHandle"), number(2), text(u"snap3")}, u"The backup agent request ORB::ReleaseVolumeHandle for snap3 failed (status 2: no backup agent is running, or it does not hold this volume).", {u"ORB::ReleaseVolumeHandle", u"snap3"}},
        {"MSG_ERROR_KIVAPI", {text(u"ORB::RetrieveHandle"), number(1235), text(u"snap4")}, u"The backup agent request ORB::RetrieveHandle for snap4 failed (status 1235).", {u"ORB::RetrieveHandle", u"1235", u"snap4"}},
        {"MSG_ERROR_KIVAPI_STR", {text(u"Make"), text(u"KIV_Open"), text(u"snap5")}, u"The snapshot volume snap5 was made, but the snapshot driver cannot open it (KIV_Open failed), so it was not handed to the backup agent.", {u"snap5", u"KIV_Open"}},
        {"MSG_ERROR_KIVAPI_2", {text(u"KIV_generateVolumeName"), number(12345)}, u"The snapshot driver could not generate a snapshot volume name (status 12345).", {u"12345"}},
        {"MSG_ERROR_KIVORBHANDLE", {text(u"KIV_ORB_Registervolume"), number(231), busy, text(u"snap6")}, u"The backup agent stayed busy for 30 seconds, so the snapshot volume snap6 was not handed to it.", {u"snap6"}},
        {"MSG_ERROR_KIVORBHANDLE", {text(u"ORB::RetrieveHandle"), number(231), busy, text(u"snap7")}, u"The backup agent stayed busy for 30 seconds: its request ORB::RetrieveHandle for snap7 never got through (status 231).", {u"ORB::RetrieveHandle", u"snap7", u"231"}},
        {"MSG_ERROR_OBJID", {text(u"snap8")}, u"The framework made no object identity for the snapshot volume snap8: the volume exists, but the framework cannot name it.", {u"snap8"}},
        {"MSG_ERROR_AUTOCONFIG", {text(u"Error occured in CreateMutex, GetLastError() is: 5")}, u"The cache files could not be placed automatically, so the snapshot has no cache settings. Details: Error occured in CreateMutex, GetLastError() is: 5", {u"GetLastError() is: 5"}},
        {"MSG_ERROR_INVAL", {text(u"KIV_Prepare"), text(u"KIV_INVAL_ARGS")}, u"The framework asked to prepare the snapshot in a mode this provider does not support (KIV_INVAL_ARGS).", {u"KIV_INVAL_ARGS"}},
    };
    // clang-format on
    const std::regex unsetArgument("\\{[0-9]");  // a placeholder left in the text
    ScopedDefaultLocale defaultLocale("de");
    const std::string tooLong = "de_" + std::string(300, 'A');
    tarp_MsgCatalog german("libfikiv", "de", false);
    tarp_MsgCatalog austrian("libfikiv", "de_AT", false);
    std::vector<std::unique_ptr<tarp_MsgCatalog>> rootCatalogues;
    for (const char* locale : {"root", "fr", tooLong.c_str(), "../libfikiv/de", "//de"}) {
        rootCatalogues.push_back(std::make_unique<tarp_MsgCatalog>("libfikiv", locale, false));
        ASSERT_TRUE(rootCatalogues.back()->isOpen()) << locale;
    }
    auto formatted = [](tarp_MsgCatalog& catalogue, const Row& row) {
        const char16_t* pattern = catalogue.getCachedMsg(row.id, false);
        EXPECT_NE(pattern, nullptr);
        return pattern != nullptr ? format(pattern, row.arguments) : u"<no pattern>";
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.id) + " " + utf8(format(u"{0}", row.arguments)));
        for (const auto& catalogue : rootCatalogues) {
            EXPECT_EQ(utf8(formatted(*catalogue, row)), utf8(row.root));
        }
        const std::u16string message = formatted(german, row);
        EXPECT_NE(utf8(message), utf8(row.root));
        EXPECT_EQ(utf8(formatted(austrian, row)), utf8(message));
        EXPECT_FALSE(std::regex_search(utf8(message), unsetArgument)) << utf8(message);
        for (const std::u16string& part : row.shown) {
            EXPECT_NE(message.find(part), std::u16string::npos) << utf8(message);
        }
    }
    {
        // A default locale without a bundle of its own: ICU falls back to root.
        ScopedDefaultLocale english("en_US");
        tarp_MsgCatalog french("libfikiv", "fr", false);
        EXPECT_EQ(utf8(formatted(french, rows[0])), utf8(rows[0].root));
    }
    EXPECT_EQ(
        utf8(formatted(german, rows[0])),
        "Der Snapshot-Treiber kann den Datenträger E:\\ nicht öffnen (KIV_Open antwortete 4101).");
}

// Every help text has German wording; every status the plug-in answers a text.
TEST(MsgCatalogTest, HelpTextsAreTranslatedAndStatusesHaveTexts) {
    tarp_MsgCatalog root("libfikiv", "root", false);
    tarp_MsgCatalog german("libfikiv", "de", false);
    // clang-format off
    for (const char* id : {"MSG_CFGHELPTEXT_SNAPSHOTVOLUMENAME", "MSG_CFGHELPTXT_CACHEFILENAME", "MSG_CFGHELPTXT_INITIALCACHEFILESIZE",
                           "MSG_CFGHELPTXT_MAXCACHEFILESIZE", "MSG_CFGHELPTXT_QUIESCEWAITTIME", "MSG_CFGHELPTXT_QUIESCETIMEOUT",
                           "MSG_CFGHELPTXT_CACHEFILEALLOWEDVOLS", "MSG_CFGHELPTXT_CACHEFILEEXCLUDEDVOLS", "MSG_CFGHELPTXT_CACHEFILEINITSIZEMB",
                           "MSG_CFGHELPTXT_CACHEFILEMAXSIZEMB", "MSG_CFGHELPTXT_CACHEFILEINITSIZEPCT", "MSG_CFGHELPTXT_CACHEFILEMAXSIZEPCT"}) {
        // clang-format on
        SCOPED_TRACE(id);
        ASSERT_NE(root.getCachedMsg(id, false), nullptr);
        ASSERT_NE(german.getCachedMsg(id, false), nullptr);
        EXPECT_NE(utf8(root.getCachedMsg(id, false)), utf8(german.getCachedMsg(id, false)));
    }
    tarp_MsgCatalog errors("TarnError", "root", false);
    for (const char* id : {"MSG_TARN_E0000", "MSG_TARN_E0003", "MSG_TARN_E0004", "MSG_TARN_E0005",
                           "MSG_TARN_E0006", "MSG_TARN_E0007", "MSG_TARN_E0015"}) {
        EXPECT_NE(errors.getCachedMsg(id, static_cast<const char16_t*>(nullptr)), nullptr) << id;
    }
}

// A missing text or catalogue is no error: null, or the caller's default.
TEST(MsgCatalogTest, MissingIdOrCatalogueGivesNullOrTheDefault) {
    // clang-format off
    struct Row { const char* name; const char* catalogue; const char* locale; bool missingCataloguePath; const char* id; bool open; };
    const Row rows[] = {
        {"UnknownId",                      "libfikiv",      "de",   false, "MSG_NOT_THERE",    true},
        {"NullId",                         "libfikiv",      "de",   false, nullptr,            true},
        {"UnknownCatalogue",               "nosuchcatalog", "de",   false, "MSG_ERROR_KIVAPI", false},
        {"EmptyCatalogueName",             "",              "de",   false, "MSG_ERROR_KIVAPI", false},
        {"CataloguePathWithoutCatalogues", "libfikiv",      "de",   true,  "MSG_ERROR_KIVAPI", false},
    };
    // clang-format on
    const char16_t* fallback = u"fallback";
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        if (row.missingCataloguePath) {
            setenv("FIKIV_CATALOG_PATH", "/nonexistent/fikiv_catalogues", 1);
        }
        tarp_MsgCatalog catalogue(row.catalogue, row.locale, false);
        unsetenv("FIKIV_CATALOG_PATH");
        EXPECT_EQ(catalogue.isOpen(), row.open);
        EXPECT_EQ(catalogue.getCachedMsg(row.id, false), nullptr);
        EXPECT_EQ(catalogue.getCachedMsg(row.id, static_cast<const char16_t*>(nullptr)), nullptr);
        EXPECT_EQ(catalogue.getCachedMsg(row.id, fallback), fallback);
    }
}

TEST(MsgCatalogTest, TextsStayAtTheSameAddressWhileTheCatalogueLives) {
    tarp_MsgCatalog catalogue("libfikiv", "root", false);
    const char16_t* first = catalogue.getCachedMsg("MSG_CFGHELPTXT_CACHEFILENAME", false);
    for (int i = 0; i < 20; ++i) {
        catalogue.getCachedMsg("MSG_CFGHELPTXT_QUIESCETIMEOUT", false);
        catalogue.getCachedMsg("MSG_ERROR_OBJID", false);
    }
    EXPECT_EQ(catalogue.getCachedMsg("MSG_CFGHELPTXT_CACHEFILENAME", false), first);
}

}  // namespace
