// Framework status errors and their texts from the "TarnError" catalogue.
#include "fiprovlib/TarnError.h"

#include "process_object.h"
#include "strings/bounded_string.h"
#include "tarn/msgcatalog.h"

namespace {

constexpr std::size_t kIdCapacity = 16;

// The error root catalogue, made on first need and kept until the plug-in is
// unloaded (releaseErrorCatalogue), exit included: nodes deleted at unload
// may still report errors. Texts handed out stay valid until then.
struct ErrorCatalogue {
    tarp_MsgCatalog catalogue{"TarnError", "root", false};
};

constinit ProcessObject<ErrorCatalogue> errorCatalogue;

tarp_MsgCatalog& errorCatalog() {
    return errorCatalogue.get().catalogue;
}

}  // namespace

TarnError::TarnError(std::uint32_t code, const char16_t* file, std::uint32_t line,
                     const char16_t* function)
    : tarp_Error(code, file, line, function) {}

std::int32_t TarnError::status() const {
    return static_cast<std::int32_t>(code());
}

const char16_t* TarnError::message() {
    tarp_MsgCatalog& catalog = errorCatalog();
    char id[kIdCapacity];
    boundedFormat(id, kIdCapacity, "MSG_TARN_E%04u", code());
    return catalog.getCachedMsg(id, static_cast<const char16_t*>(nullptr));
}

const char16_t* TarnError::localizedMessage() {
    return message();
}

const char16_t* TarnError::kindName() const {
    return u"Tarn Error Code";
}

void releaseErrorCatalogue() {
    errorCatalogue.release();
}
