// The message catalogues of the runtime library: lookups in root and a
// locale, fallbacks, missing ids and missing catalogues, and the patterns the
// plug-in formats with ICU.
#include "tarn/msgcatalog.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include <unicode/fmtable.h>
#include <unicode/locid.h>
#include <unicode/msgfmt.h>
#include <unicode/unistr.h>

namespace {

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

// Sets FIKIV_CATALOG_PATH for the life of the object.
class ScopedCatalogPath {
  public:
    explicit ScopedCatalogPath(const std::string& path) {
        const char* previous = std::getenv("FIKIV_CATALOG_PATH");
        if (previous != nullptr) {
            previous_ = previous;
            hadPrevious_ = true;
        }
        setenv("FIKIV_CATALOG_PATH", path.c_str(), 1);
    }
    ~ScopedCatalogPath() {
        if (hadPrevious_) {
            setenv("FIKIV_CATALOG_PATH", previous_.c_str(), 1);
        } else {
            unsetenv("FIKIV_CATALOG_PATH");
        }
    }

  private:
    std::string previous_;
    bool hadPrevious_ = false;
};

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

TEST(MsgCatalogTest, FormatsDriverFailureInRootAndLocales) {
    const std::string tooLong = "de_" + std::string(300, 'A');
    struct Row {
        const char* name;
        const char* locale;
        std::u16string expected;
    };
    const Row rows[] = {
        {"Root", "root", u"The snapshot driver call KIV_Open failed with status 5 for C:\\."},
        {"German", "de",
         u"Der Aufruf KIV_Open des Snapshot-Treibers ist für C:\\ mit Status 5 fehlgeschlagen."},
        {"GermanRegionFallsBackToGerman", "de_AT",
         u"Der Aufruf KIV_Open des Snapshot-Treibers ist für C:\\ mit Status 5 fehlgeschlagen."},
        {"UnknownLocaleFallsBackToRoot", "fr",
         u"The snapshot driver call KIV_Open failed with status 5 for C:\\."},
        {"NameTooLongForALocaleFallsBackToRoot", tooLong.c_str(),
         u"The snapshot driver call KIV_Open failed with status 5 for C:\\."},
        // A path in the name would open a bundle file outside the catalogue.
        {"NameWithAPathIsNotFollowed", "../libfikiv/de",
         u"The snapshot driver call KIV_Open failed with status 5 for C:\\."},
        {"NameWithSlashesIsNotALocale", "//de",
         u"The snapshot driver call KIV_Open failed with status 5 for C:\\."},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        tarp_MsgCatalog catalogue("libfikiv", row.locale, false);
        ASSERT_TRUE(catalogue.isOpen());
        const char16_t* pattern = catalogue.getCachedMsg("MSG_ERROR_KIVAPI", false);
        ASSERT_NE(pattern, nullptr);
        EXPECT_EQ(
            format(pattern, {text(u"KIV_Open"), icu::Formattable(std::int32_t{5}), text(u"C:\\")}),
            row.expected);
    }
}

// ICU would fall back to the process's default locale before root; the
// catalogue's language must not depend on the environment of the host.
TEST(MsgCatalogTest, UnknownLocaleIgnoresTheDefaultLocale) {
    ScopedDefaultLocale german("de");
    tarp_MsgCatalog french("libfikiv", "fr", false);
    tarp_MsgCatalog root("libfikiv", "root", false);
    const char16_t* frenchText = french.getCachedMsg("MSG_ERROR_OBJID", false);
    const char16_t* rootText = root.getCachedMsg("MSG_ERROR_OBJID", false);
    ASSERT_NE(frenchText, nullptr);
    ASSERT_NE(rootText, nullptr);
    EXPECT_EQ(std::u16string(frenchText), std::u16string(rootText));
}

// Every message the plug-in raises exists in root and German, and uses each
// of its arguments: a placeholder left over or an argument never shown would
// give the user a broken message. Status numbers are shown without grouping
// ("4101", not "4.101"), whatever the process's default locale.
TEST(MsgCatalogTest, EveryPluginMessageUsesAllItsArguments) {
    struct Row {
        const char* id;
        std::vector<icu::Formattable> arguments;
        std::vector<std::u16string> shown;
    };
    const std::vector<Row> rows = {
        {"MSG_ERROR_KIVAPI",
         {text(u"KIV_Open"), icu::Formattable(std::int32_t{4101}), text(u"E:\\")},
         {u"KIV_Open", u" 4101 ", u"E:\\"}},
        {"MSG_ERROR_KIVAPI_STR",
         {text(u"Make"), text(u"KIV_Open"), text(u"\\\\?\\snap1")},
         {u"Make", u"KIV_Open", u"\\\\?\\snap1"}},
        {"MSG_ERROR_KIVAPI_2",
         {text(u"KIV_generateVolumeName"), icu::Formattable(std::int32_t{12345})},
         {u"KIV_generateVolumeName", u" 12345"}},
        {"MSG_ERROR_KIVORBHANDLE",
         {text(u"ORB::RetrieveHandle"), icu::Formattable(std::int32_t{231}), text(u"busy"),
          text(u"\\\\?\\snap2")},
         {u"ORB::RetrieveHandle", u"231", u"busy", u"\\\\?\\snap2"}},
        {"MSG_ERROR_OBJID", {text(u"\\\\?\\snap3")}, {u"\\\\?\\snap3"}},
        {"MSG_ERROR_AUTOCONFIG", {text(u"no volume left")}, {u"no volume left"}},
        {"MSG_ERROR_INVAL",
         {text(u"KIV_Prepare"), text(u"KIV_INVAL_ARGS")},
         {u"KIV_Prepare", u"KIV_INVAL_ARGS"}},
    };
    ScopedDefaultLocale german("de");
    for (const char* locale : {"root", "de"}) {
        tarp_MsgCatalog catalogue("libfikiv", locale, false);
        for (const Row& row : rows) {
            SCOPED_TRACE(std::string(locale) + " " + row.id);
            const char16_t* pattern = catalogue.getCachedMsg(row.id, false);
            ASSERT_NE(pattern, nullptr);
            std::u16string message = format(pattern, row.arguments);
            EXPECT_EQ(message.find(u'{'), std::u16string::npos);
            for (const std::u16string& part : row.shown) {
                EXPECT_NE(message.find(part), std::u16string::npos);
            }
        }
    }
}

TEST(MsgCatalogTest, ConfigurationHelpAndStatusTextsExist) {
    const char* helpIds[] = {
        "MSG_CFGHELPTEXT_SNAPSHOTVOLUMENAME",  "MSG_CFGHELPTXT_CACHEFILENAME",
        "MSG_CFGHELPTXT_INITIALCACHEFILESIZE", "MSG_CFGHELPTXT_MAXCACHEFILESIZE",
        "MSG_CFGHELPTXT_QUIESCEWAITTIME",      "MSG_CFGHELPTXT_QUIESCETIMEOUT",
        "MSG_CFGHELPTXT_CACHEFILEALLOWEDVOLS", "MSG_CFGHELPTXT_CACHEFILEEXCLUDEDVOLS",
        "MSG_CFGHELPTXT_CACHEFILEINITSIZEMB",  "MSG_CFGHELPTXT_CACHEFILEMAXSIZEMB",
        "MSG_CFGHELPTXT_CACHEFILEINITSIZEPCT", "MSG_CFGHELPTXT_CACHEFILEMAXSIZEPCT",
    };
    tarp_MsgCatalog root("libfikiv", "root", false);
    tarp_MsgCatalog german("libfikiv", "de", false);
    for (const char* id : helpIds) {
        SCOPED_TRACE(id);
        ASSERT_NE(root.getCachedMsg(id, false), nullptr);
        ASSERT_NE(german.getCachedMsg(id, false), nullptr);
        EXPECT_NE(std::u16string(root.getCachedMsg(id, false)),
                  std::u16string(german.getCachedMsg(id, false)));
    }
    tarp_MsgCatalog errors("TarnError", "root", false);
    for (const char* id : {"MSG_TARN_E0000", "MSG_TARN_E0003", "MSG_TARN_E0004", "MSG_TARN_E0005",
                           "MSG_TARN_E0006", "MSG_TARN_E0007", "MSG_TARN_E0015"}) {
        SCOPED_TRACE(id);
        EXPECT_NE(errors.getCachedMsg(id, static_cast<const char16_t*>(nullptr)), nullptr);
    }
}

TEST(MsgCatalogTest, MissingIdGivesNullOrTheDefault) {
    tarp_MsgCatalog catalogue("libfikiv", "de", false);
    ASSERT_TRUE(catalogue.isOpen());
    EXPECT_EQ(catalogue.getCachedMsg("MSG_NOT_THERE", false), nullptr);
    EXPECT_EQ(catalogue.getCachedMsg("MSG_NOT_THERE", static_cast<const char16_t*>(nullptr)),
              nullptr);
    const char16_t* fallback = u"fallback";
    EXPECT_EQ(catalogue.getCachedMsg("MSG_NOT_THERE", fallback), fallback);
    EXPECT_EQ(catalogue.getCachedMsg(nullptr, fallback), fallback);
    tarp_MsgCatalog errors("TarnError", "root", false);
    EXPECT_EQ(errors.getCachedMsg("MSG_TARN_E0042", static_cast<const char16_t*>(nullptr)),
              nullptr);
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

TEST(MsgCatalogTest, MissingCatalogueIsClosedAndAnswersNothing) {
    struct Row {
        const char* name;
        const char* catalogue;
        bool emptyCatalogPath;
    };
    const Row rows[] = {
        {"UnknownName", "nosuchcatalog", false},
        {"EmptyName", "", false},
        {"CataloguePathWithoutCatalogues", "libfikiv", true},
    };
    std::filesystem::path empty =
        std::filesystem::temp_directory_path() / ("msgcatalog_test_" + std::to_string(getpid()));
    std::filesystem::create_directories(empty);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        std::unique_ptr<ScopedCatalogPath> path;
        if (row.emptyCatalogPath) {
            path = std::make_unique<ScopedCatalogPath>(empty.string());
        }
        tarp_MsgCatalog catalogue(row.catalogue, "de", false);
        EXPECT_FALSE(catalogue.isOpen());
        EXPECT_EQ(catalogue.getCachedMsg("MSG_ERROR_KIVAPI", false), nullptr);
        const char16_t* fallback = u"fallback";
        EXPECT_EQ(catalogue.getCachedMsg("MSG_ERROR_KIVAPI", fallback), fallback);
    }
    std::filesystem::remove_all(empty);
}

TEST(MsgCatalogTest, CataloguePathFromEnvironmentIsUsed) {
    // A catalogue directory of our own with the root bundle only: German
    // lookups must then come from it, in English, not from the build's
    // catalogues next to the library.
    std::filesystem::path directory =
        std::filesystem::temp_directory_path() / ("msgcatalog_env_" + std::to_string(getpid()));
    std::filesystem::create_directories(directory / "libfikiv");
    std::filesystem::copy_file(std::filesystem::path(FIKIV_CATALOG_DIR) / "libfikiv" / "root.res",
                               directory / "libfikiv" / "root.res");
    const char16_t* english = nullptr;
    std::u16string englishText;
    {
        tarp_MsgCatalog root("libfikiv", "root", false);
        english = root.getCachedMsg("MSG_ERROR_OBJID", false);
        ASSERT_NE(english, nullptr);
        englishText = english;
    }
    {
        ScopedCatalogPath path(directory.string());
        tarp_MsgCatalog catalogue("libfikiv", "de", false);
        ASSERT_TRUE(catalogue.isOpen());
        const char16_t* text = catalogue.getCachedMsg("MSG_ERROR_OBJID", false);
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(std::u16string(text), englishText);
    }
    std::filesystem::remove_all(directory);
}

}  // namespace
