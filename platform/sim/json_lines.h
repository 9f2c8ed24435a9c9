// Where the values of a JSON text sit, for messages that point into a file:
// the line of each field ("volumes[2].type"), the line of a byte, the key
// before a syntax error, and a bound on nesting checked before parsing.
#ifndef PLATFORM_SIM_JSON_LINES_H_
#define PLATFORM_SIM_JSON_LINES_H_

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

namespace sim {

// Line of every value of a JSON text, by field name. The text must already
// have parsed and nest no deeper than lineOfDeepNesting allows; the scan
// trusts its structure.
class JsonLines {
  public:
    explicit JsonLines(std::string_view text);

    // Line of `field`, else of the nearest enclosing field that has one.
    int lineOf(std::string field) const;

  private:
    void skipSpace();
    std::string stringToken();
    void value(const std::string& field);

    std::string_view text_;
    std::size_t at_ = 0;
    int line_ = 1;
    std::map<std::string, int> lines_;
};

// The line of the first '[' or '{' (outside strings) that opens a level
// deeper than `maxDepth`, or 0 when the text nests no deeper.
int lineOfDeepNesting(std::string_view text, int maxDepth);
// The line (1-based) of byte `offset`.
int lineAt(std::string_view text, std::size_t offset);
// The key of the last "name": pair that starts before `offset`, to say where
// a syntax error sits in a long file; empty when there is none.
std::string lastKeyBefore(std::string_view text, std::size_t offset);

}  // namespace sim

#endif  // PLATFORM_SIM_JSON_LINES_H_
