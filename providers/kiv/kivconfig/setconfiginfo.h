// Reading of the SET_CONFIG_INFO settings document in which the framework
// sends the values it chose for a node's settings.
//
// The document is one line of tag-like elements:
//   <SET_CONFIG_INFO_LIST> <SET_CONFIG_INFO name=KEY name=VALUE /> ... </SET_CONFIG_INFO_LIST>
// It is not XML: it is split at blanks and equals signs only, so tabs and line
// feeds are ordinary characters, a value cannot hold a blank, and quotation
// marks belong to the value. The attribute names are not looked at.
//
// Thread-safe: works on a private copy of the text and touches nothing shared.
#ifndef PROVIDERS_KIV_KIVCONFIG_SETCONFIGINFO_H_
#define PROVIDERS_KIV_KIVCONFIG_SETCONFIGINFO_H_

#include <cstdint>
#include <string>
#include <vector>

// Reads the settings document `text` and appends one entry "KEY=VALUE" per
// stored element to `out`, in document order. An element whose value is ";"
// (no value) stores nothing, nor does one whose entry contains "cs_flags"
// (the preparation mode is read from the whole text by the configuration).
//
// Returns 0 when the document is well formed, 3 otherwise: a null text, a
// text that does not start with the list start, a token after an element that
// is neither an element start nor the list end, an element that ends before
// its key or value, an element start inside an element, or a document that
// ends before the list end. Text after the list end is not read. On 3 `out` is
// left exactly as it was.
std::int32_t parseSetConfigInfo(const char16_t* text, std::vector<std::u16string>& out);

#endif  // PROVIDERS_KIV_KIVCONFIG_SETCONFIGINFO_H_
