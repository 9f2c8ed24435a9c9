// An error carrying a framework status code; its text comes from the
// "TarnError" catalogue (id "MSG_TARN_E%04u").
#ifndef PROVIDERS_FIPROVLIB_TARNERROR_H_
#define PROVIDERS_FIPROVLIB_TARNERROR_H_

#include "fiprovlib/Error.h"

class TarnError : public tarp_Error {
  public:
    TarnError(std::uint32_t code, const char16_t* file, std::uint32_t line,
              const char16_t* function);

    std::int32_t status() const override;
    // The catalogue text, or null when the catalogue has none.
    const char16_t* message() override;
    const char16_t* localizedMessage() override;
    const char16_t* kindName() const override;
};

// Deletes the "TarnError" catalogue when the plug-in is unloaded (before ICU
// is cleaned up); texts handed out before are invalid afterwards. A later
// message() makes it again.
void releaseErrorCatalogue();

#endif  // PROVIDERS_FIPROVLIB_TARNERROR_H_
