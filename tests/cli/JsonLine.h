// Reading one line of JSON as commschannel writes it, for the tests: an
// object whose values are strings, numbers, or arrays of such objects. Each
// top-level key maps to its value's text as written (strings with their
// quotes); jsonText() undoes a string's escapes. Enough to check keys and
// values, not a general parser. One test thread.
#ifndef COMMSCHANNEL_TESTS_JSON_LINE_H
#define COMMSCHANNEL_TESTS_JSON_LINE_H

#include <cstddef>
#include <cstdlib>
#include <map>
#include <string>

namespace cctest {

// Skips one value starting at text[*at]; false when it is malformed.
inline bool skipJsonValue(const std::string& text, std::size_t* at)
{
    std::size_t i = *at;
    if (i >= text.size()) {
        return false;
    }
    if (text[i] == '"') {
        for (++i; i < text.size() && text[i] != '"'; ++i) {
            i += text[i] == '\\' ? 1 : 0;
        }
        *at = i + 1;
        return i < text.size();
    }
    if (text[i] == '{' || text[i] == '[') {
        int depth = 0;
        for (; i < text.size(); ++i) {
            if (text[i] == '"') {
                if (!skipJsonValue(text, &i)) {
                    return false;
                }
                --i;
            } else if (text[i] == '{' || text[i] == '[') {
                ++depth;
            } else if ((text[i] == '}' || text[i] == ']') && --depth == 0) {
                *at = i + 1;
                return true;
            }
        }
        return false;
    }
    const std::size_t end = text.find_first_of(",}]", i);
    *at = end == std::string::npos ? text.size() : end;
    return *at > i;
}

// The keys of the object on one line with their values' text; empty when
// the line is no well-formed object.
inline std::map<std::string, std::string> parseJsonLine(const std::string& line)
{
    std::map<std::string, std::string> fields;
    std::size_t at = 1;
    if (line.size() < 2 || line[0] != '{' || line.back() != '}') {
        return {};
    }
    while (at < line.size() && line[at] == '"') {
        std::size_t keyEnd = at;
        if (!skipJsonValue(line, &keyEnd) || keyEnd >= line.size() || line[keyEnd] != ':') {
            return {};
        }
        std::size_t valueEnd = keyEnd + 1;
        if (!skipJsonValue(line, &valueEnd)) {
            return {};
        }
        fields[line.substr(at + 1, keyEnd - at - 2)] = line.substr(keyEnd + 1, valueEnd - keyEnd - 1);
        at = valueEnd + (valueEnd < line.size() && line[valueEnd] == ',' ? 1 : 0);
    }
    return at + 1 == line.size() ? fields : std::map<std::string, std::string>();
}

// The bytes of a JSON string literal (quotes included) as commschannel
// writes them: \" \\ \n \r \t and \u00XX.
inline std::string jsonText(const std::string& literal)
{
    std::string out;
    for (std::size_t i = 1; i + 1 < literal.size(); ++i) {
        if (literal[i] != '\\') {
            out += literal[i];
        } else if (literal[++i] == 'u') {
            out += static_cast<char>(std::strtol(literal.substr(i + 3, 2).c_str(), nullptr, 16));
            i += 4;
        } else {
            out += literal[i] == 'n' ? '\n' : literal[i] == 'r' ? '\r' : literal[i] == 't' ? '\t' : literal[i];
        }
    }
    return out;
}

}  // namespace cctest

#endif
