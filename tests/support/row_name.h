// Table-driven tests: a row prints as its name, so test listings and failure
// messages read "…/EmptyName  # GetParam() = EmptyName" instead of the row's
// bytes. Use at namespace scope, after the row type, for a type with a
// `name` member.
#ifndef TESTS_SUPPORT_ROW_NAME_H_
#define TESTS_SUPPORT_ROW_NAME_H_

#include <ostream>

#define FIKIV_PRINT_ROW_NAME(Row)                                              \
    [[maybe_unused]] inline void PrintTo(const Row& row, std::ostream* out) { \
        *out << row.name;                                                      \
    }

#endif  // TESTS_SUPPORT_ROW_NAME_H_
