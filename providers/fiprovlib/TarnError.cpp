// Framework status errors and their texts from the "TarnError" catalogue.
#include "fiprovlib/TarnError.h"

#include "strings/bounded_string.h"
#include "tarn/msgcatalog.h"

namespace {

constexpr std::size_t kIdCapacity = 16;

// The error root catalogue, made on first need and kept until the process
// ends (it is never destroyed, so texts handed out stay valid at exit). The
// initialisation of a function-local static is serialised by the language,
// so two threads cannot both make it.
tarp_MsgCatalog& errorCatalog() {
    static tarp_MsgCatalog* catalog = new tarp_MsgCatalog("TarnError", "root", false);
    return *catalog;
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
