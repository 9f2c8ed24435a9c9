// Trailing backslashes of volume roots and paths.
#ifndef PROVIDERS_INCLUDE_PATH_HELPER_H_
#define PROVIDERS_INCLUDE_PATH_HELPER_H_

#include <string>

// `name` ending in exactly one more backslash when it did not end in one.
inline std::u16string withTrailingBackslash(std::u16string name) {
    if (name.empty() || name.back() != u'\\') {
        name.push_back(u'\\');
    }
    return name;
}

// `name` without any of its trailing backslashes.
inline std::u16string withoutTrailingBackslashes(std::u16string name) {
    while (!name.empty() && name.back() == u'\\') {
        name.pop_back();
    }
    return name;
}

#endif  // PROVIDERS_INCLUDE_PATH_HELPER_H_
