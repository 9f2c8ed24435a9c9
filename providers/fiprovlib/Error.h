// Base of the provider's error objects: a code, where it was made, its
// framework status, its texts, and its report to the event log.
#ifndef PROVIDERS_FIPROVLIB_ERROR_H_
#define PROVIDERS_FIPROVLIB_ERROR_H_

#include <cstdint>

class tarp_Error {
  public:
    tarp_Error(std::uint32_t code, const char16_t* file, std::uint32_t line,
               const char16_t* function);
    virtual ~tarp_Error();

    // The framework status for this error.
    virtual std::int32_t status() const = 0;
    // Writes "Error: 0x%08X, in file %s, line %d\n" to the debug output and to
    // the event log under the plug-in name; the type follows the level (1 and
    // 4 information, 2 warning, else error) and the event id is code().
    virtual void report(std::uint32_t level) const;
    virtual const char16_t* message() = 0;
    virtual const char16_t* localizedMessage() = 0;
    virtual const char16_t* kindName() const = 0;

    std::uint32_t code() const { return code_; }
    const char16_t* file() const { return file_; }
    std::uint32_t line() const { return line_; }
    const char16_t* function() const { return function_; }

  private:
    std::uint32_t code_;
    const char16_t* file_;
    std::uint32_t line_;
    const char16_t* function_;
};

// Hands the error's message and localised message to the framework callback
// at `level`, and reports it to the event log when `report` is true.
void logError(tarp_Error& error, std::uint32_t level, bool report);

#endif  // PROVIDERS_FIPROVLIB_ERROR_H_
