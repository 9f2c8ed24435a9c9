// The host's conversions are the simulated machine's (sim/text.h), so that the
// host, the platform and the driver replace ill-formed text alike.
#include "host/text.h"

#include "sim/text.h"

namespace host {

std::string toUtf8(const char16_t* text) {
    return text == nullptr ? std::string() : sim::toUtf8(std::u16string_view(text));
}

std::string toUtf8(std::u16string_view text) {
    return sim::toUtf8(text);
}

std::u16string toUtf16(std::string_view text) {
    return sim::fromUtf8(text);
}

}  // namespace host
