// Wide <-> narrow conversion on the platform's code-page functions. Each
// conversion asks for the size first, converts into a buffer one larger, and
// checks that both answers agree before it trusts the result.
#include "string_helper.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

#include "os/codepage.h"

namespace {

// The source name the consistency checks report, as the product's own.
constexpr const char* kSource = "providers\\include\\string_helper";

// Stops the process when a conversion's own arithmetic does not hold.
void check(bool condition, const char* expression, int line) {
    if (condition) {
        return;
    }
    std::fprintf(stderr, "fatal: check failed: %s, file %s, line %d\n", expression, kSource, line);
    std::fflush(stderr);
    std::abort();
}

}  // namespace

std::string toNarrow(std::u16string_view text, os::UINT codePage) {
    if (text.empty()) {
        return {};
    }
    const int len = static_cast<int>(text.size());
    const int lenNeeded =
        os::WideCharToMultiByte(codePage, 0, text.data(), len, nullptr, 0, nullptr, nullptr);
    const std::size_t bufferSize = static_cast<std::size_t>(lenNeeded > 0 ? lenNeeded : 0) + 1;
    std::unique_ptr<char[]> buffer(new char[bufferSize]);
    const int len2 = os::WideCharToMultiByte(codePage, 0, text.data(), len, buffer.get(),
                                             static_cast<int>(bufferSize), nullptr, nullptr);
    std::string ret_val(buffer.get(), static_cast<std::size_t>(len2 > 0 ? len2 : 0));
    check(len2 == lenNeeded, "len2 == lenNeeded", 80);
    check(static_cast<std::size_t>(len2) == ret_val.length(), "len2 == ret_val.length( )", 81);
    check(len2 >= len, "len2 >= len", 82);
    return ret_val;
}

std::u16string toWide(std::string_view text, os::UINT codePage) {
    if (text.empty()) {
        return {};
    }
    const int len = static_cast<int>(text.size());
    const int lenNeeded = os::MultiByteToWideChar(codePage, 0, text.data(), len, nullptr, 0);
    const std::size_t bufferSize = static_cast<std::size_t>(lenNeeded > 0 ? lenNeeded : 0) + 1;
    std::unique_ptr<char16_t[]> buffer(new char16_t[bufferSize]);
    const int len2 = os::MultiByteToWideChar(codePage, 0, text.data(), len, buffer.get(),
                                             static_cast<int>(bufferSize));
    std::u16string ret_val(buffer.get(), static_cast<std::size_t>(len2 > 0 ? len2 : 0));
    check(len2 == lenNeeded, "len2 == lenNeeded", 138);
    check(static_cast<std::size_t>(len2) == ret_val.length(), "len2 == ret_val.length( )", 139);
    check(len2 <= len, "len2 <= len", 140);
    return ret_val;
}
