// Line bookkeeping for JSON texts. nlohmann::json parses; these scans of the
// same text remember the line where each value starts, so that a field that
// is well-formed JSON but wrong for its reader is reported with its line, as
// a syntax error is.
#include "json_lines.h"

#include <cctype>

namespace sim {
namespace {

bool isSpace(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

}  // namespace

JsonLines::JsonLines(std::string_view text) : text_(text) {
    skipSpace();
    if (at_ < text_.size()) {
        value("");
    }
}

int JsonLines::lineOf(std::string field) const {
    while (true) {
        auto found = lines_.find(field);
        if (found != lines_.end()) {
            return found->second;
        }
        const std::size_t cut = field.find_last_of(".[");
        if (cut == std::string::npos || field.empty()) {
            return 1;
        }
        field.resize(cut);
    }
}

void JsonLines::skipSpace() {
    while (at_ < text_.size() && isSpace(text_[at_])) {
        if (text_[at_] == '\n') {
            ++line_;
        }
        ++at_;
    }
}

std::string JsonLines::stringToken() {
    std::string result;
    ++at_;  // opening quote
    while (at_ < text_.size() && text_[at_] != '"') {
        if (text_[at_] == '\\' && at_ + 1 < text_.size()) {
            ++at_;
        }
        result.push_back(text_[at_++]);
    }
    ++at_;  // closing quote
    return result;
}

void JsonLines::value(const std::string& field) {
    skipSpace();
    if (at_ >= text_.size()) {
        return;
    }
    lines_.emplace(field, line_);
    const char c = text_[at_];
    if (c == '{') {
        ++at_;
        skipSpace();
        while (at_ < text_.size() && text_[at_] != '}') {
            const std::string key = stringToken();
            skipSpace();
            ++at_;  // ':'
            value(field.empty() ? key : field + "." + key);
            skipSpace();
            if (at_ < text_.size() && text_[at_] == ',') {
                ++at_;
                skipSpace();
            }
        }
        ++at_;
    } else if (c == '[') {
        ++at_;
        skipSpace();
        for (int index = 0; at_ < text_.size() && text_[at_] != ']'; ++index) {
            value(field + "[" + std::to_string(index) + "]");
            skipSpace();
            if (at_ < text_.size() && text_[at_] == ',') {
                ++at_;
                skipSpace();
            }
        }
        ++at_;
    } else if (c == '"') {
        stringToken();
    } else {
        while (at_ < text_.size() && text_[at_] != ',' && text_[at_] != '}' && text_[at_] != ']' &&
               !isSpace(text_[at_])) {
            ++at_;
        }
    }
}

int lineOfDeepNesting(std::string_view text, int maxDepth) {
    int depth = 0;
    int line = 1;
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\n') {
            ++line;
        }
        if (inString) {
            if (c == '\\') {
                ++i;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > maxDepth) {
                return line;
            }
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return 0;
}

int lineAt(std::string_view text, std::size_t offset) {
    int line = 1;
    for (std::size_t i = 0; i < offset && i < text.size(); ++i) {
        line += text[i] == '\n' ? 1 : 0;
    }
    return line;
}

std::string lastKeyBefore(std::string_view text, std::size_t offset) {
    std::string key;
    bool inString = false;
    std::string current;
    for (std::size_t i = 0; i < offset && i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\') {
                ++i;
            } else if (c == '"') {
                inString = false;
                std::size_t next = i + 1;
                while (next < text.size() && isSpace(text[next])) {
                    ++next;
                }
                if (next < text.size() && text[next] == ':') {
                    key = current;
                }
            } else {
                current.push_back(c);
            }
        } else if (c == '"') {
            inString = true;
            current.clear();
        }
    }
    return key;
}

}  // namespace sim
