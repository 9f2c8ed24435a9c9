// Fuzzes the settings document reader. Checks that it answers 0 or 3, leaves
// the caller's list alone on 3, stores only "key=value" entries without
// blanks or the mode key, and agrees with a second reading of the same
// document done with the C library's wcstok.
#include <cstdint>
#include <cwchar>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "kiv/kivconfig/setconfiginfo.h"

namespace {

using fuzzsupport::check;

// The document grammar once more, on wchar_t text split by wcstok itself.
std::int32_t referenceParse(std::wstring text, std::vector<std::u16string>& out) {
    wchar_t* state = nullptr;
    auto take = [&state](wchar_t* from, const wchar_t* delimiters) {
        return std::wcstok(from, delimiters, &state);
    };
    auto is = [](const wchar_t* token, const wchar_t* mark) {
        return token != nullptr && std::wcscmp(token, mark) == 0;
    };
    const wchar_t* kStart = L"<SET_CONFIG_INFO";
    wchar_t* token = take(text.data(), L" ");
    if (!is(token, L"<SET_CONFIG_INFO_LIST>")) {
        return 3;
    }
    std::vector<std::u16string> entries;
    for (;;) {
        token = take(nullptr, L" ");
        if (is(token, L"</SET_CONFIG_INFO_LIST>")) {
            out.insert(out.end(), entries.begin(), entries.end());
            return 0;
        }
        if (!is(token, kStart)) {
            return 3;
        }
        for (;;) {
            if (token == nullptr) {
                return 3;
            }
            if (std::wcsncmp(token, L"/>", 2) == 0) {
                break;
            }
            wchar_t* name = take(nullptr, L"=");
            wchar_t* key = take(nullptr, L" ");
            wchar_t* name2 = take(nullptr, L"=");
            wchar_t* value = take(nullptr, L" ");
            if (is(name, kStart) || is(key, kStart) || is(name2, kStart) || is(value, kStart)) {
                return 3;
            }
            if (key == nullptr || value == nullptr) {
                return 3;
            }
            if (std::wcscmp(value, L";") != 0) {
                std::wstring entry = std::wstring(key) + L"=" + value;
                if (entry.find(L"cs_flags") == std::wstring::npos) {
                    entries.emplace_back(entry.begin(), entry.end());
                }
            }
            token = take(nullptr, L" ");
            if (is(token, kStart)) {
                return 3;
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::u16string text = fuzzsupport::decode(data, size);

    const std::vector<std::u16string> before = {u"earlier=entry"};
    std::vector<std::u16string> out = before;
    std::int32_t result = parseSetConfigInfo(text.c_str(), out);
    check(result == 0 || result == 3, "result is 0 or 3");
    if (result == 3) {
        check(out == before, "a rejected document appends nothing");
    }
    check(out.size() >= before.size() && out[0] == before[0], "earlier entries are kept");
    for (std::size_t i = before.size(); i < out.size(); ++i) {
        const std::u16string& entry = out[i];
        // Key and value are both non-empty but may hold "=" themselves.
        check(entry.size() >= 3 && entry.find(u'=', 1) < entry.size() - 1,
              "an entry is key=value with both parts");
        check(entry.find(u' ') == std::u16string::npos, "an entry holds no blank");
        check(entry.find(u"cs_flags") == std::u16string::npos, "the mode is not stored");
    }

    // wchar_t is wider than char16_t here; units map one to one up to the
    // first NUL, which ends both texts.
    std::wstring wide(text.begin(), text.end());
    std::vector<std::u16string> reference = before;
    std::int32_t referenceResult = referenceParse(wide.c_str(), reference);
    check(result == referenceResult, "both readings agree on the result");
    check(out == reference, "both readings agree on the entries");
    return 0;
}
