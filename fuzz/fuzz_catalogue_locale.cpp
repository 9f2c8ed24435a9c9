// Fuzzes the locale name the host hands the plug-in at init: the coordinator
// builds its catalogues from it (KivFiCoordinator::initCatalogues, over
// tarp_MsgCatalog and ICU resource bundles) and formats a catalogue message
// in both. The input is the locale's bytes, up to the first NUL.
// Checks:
//   - the locale catalogue always opens: a locale without a bundle falls back
//     along its parents to root, whatever the name looks like;
//   - its texts are those of a bundle the catalogue has (root or de), never
//     of the process's default locale or of a file outside the catalogue;
//   - a reported message reaches the host with both texts.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <unicode/fmtable.h>
#include <unicode/uloc.h>

#include "fuzz_support.h"
#include "kiv/kivficoordinator.h"
#include "tarn/msgcatalog.h"
#include "tarn/records.h"

namespace {

using fuzzsupport::check;

constexpr const char* kCatalogue = "libfikiv";
constexpr const char* kMessage = "MSG_ERROR_INVAL";

int reports = 0;
bool reportHadBothTexts = false;

int onMessage(tarn_context* /*context*/, const char16_t* localeText, const char16_t* rootText,
              std::uint32_t /*level*/) {
    ++reports;
    reportHadBothTexts = localeText != nullptr && rootText != nullptr;
    return 0;
}

tarn_context& hostContext() {
    static tarn_context context{};
    context.msg_callback = &onMessage;
    return context;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // The catalogues of this build, and a default locale that has a bundle,
    // so that falling back to the default instead of root would show.
    setenv("FIKIV_CATALOG_PATH", FIKIV_CATALOG_DIR, 1);
    UErrorCode status = U_ZERO_ERROR;
    uloc_setDefault("de", &status);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string locale(reinterpret_cast<const char*>(data),
                             std::find(data, data + size, '\0') - data);
    static tarp_MsgCatalog root(kCatalogue, "root", false);
    static tarp_MsgCatalog german(kCatalogue, "de", false);
    const std::u16string rootText = root.getCachedMsg(kMessage, false);
    const std::u16string germanText = german.getCachedMsg(kMessage, false);
    check(rootText != germanText, "the catalogue has a German text to tell apart");

    KivFiCoordinator& coordinator = KivFiCoordinator::instance();
    coordinator.setFrameworkContext(&hostContext());
    coordinator.initCatalogues(locale.c_str());
    tarp_MsgCatalog* catalogue = coordinator.localeCatalogue();
    check(catalogue != nullptr && catalogue->isOpen(), "the locale catalogue opens");
    const char16_t* text = catalogue->getCachedMsg(kMessage, false);
    check(text != nullptr, "the locale catalogue has every message");
    check(text == rootText || text == germanText, "the text comes from the catalogue's bundles");
    if (text == germanText) {
        check(locale.size() >= 2 && (locale[0] == 'd' || locale[0] == 'D') &&
                  (locale[1] == 'e' || locale[1] == 'E'),
              "only a German locale gives the German text");
    }

    const icu::Formattable arguments[] = {icu::Formattable(u"KIV_Open"),
                                          icu::Formattable(u"refused")};
    reports = 0;
    coordinator.reportMessage(kMessage, arguments, 2, 2);
    check(reports == 1 && reportHadBothTexts, "the report reaches the host with both texts");
    return 0;
}
