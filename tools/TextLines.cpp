#include "tools/TextLines.h"

#include <string.h>

namespace vymm {

namespace {

bool IsBlank(char c) { return c != '\0' && strchr(kBlanks, c) != nullptr; }

int HexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// The byte of the two hex digits at line[pos], or -1.
int HexByte(const std::string& line, size_t pos) {
    if (pos + 1 >= line.size()) {
        return -1;
    }
    const int high = HexDigit(line[pos]);
    const int low = HexDigit(line[pos + 1]);
    return high < 0 || low < 0 ? -1 : high * 16 + low;
}

// Reads the quoted word that starts at line[*pos] == '"' into word.
bool ReadQuoted(const std::string& line, size_t* pos, std::string* word, std::string* error) {
    for (size_t i = *pos + 1; i < line.size(); ++i) {
        const char c = line[i];
        if (c == '"') {
            *pos = i + 1;
            return true;
        }
        if (c != '\\') {
            *word += c;
            continue;
        }
        const char escaped = ++i < line.size() ? line[i] : '\0';
        switch (escaped) {
            case '"':
            case '\\':
                *word += escaped;
                break;
            case 'n':
                *word += '\n';
                break;
            case 't':
                *word += '\t';
                break;
            case 'x':
                if (const int byte = HexByte(line, i + 1); byte >= 0) {
                    *word += static_cast<char>(byte);
                    i += 2;
                    break;
                }
                *error = "\\x in a quoted word takes two hex digits";
                return false;
            default:
                *error = std::string("unknown escape \\") + escaped + " in a quoted word";
                return false;
        }
    }
    *error = "unclosed quote";
    return false;
}

}  // namespace

std::string Trim(const std::string& text) {
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::string LinePrefix(const std::string& name, int line) {
    return name + ":" + std::to_string(line) + ": ";
}

bool SplitWords(const std::string& line, std::vector<std::string>* words, std::string* error) {
    words->clear();
    size_t pos = 0;
    for (;;) {
        while (pos < line.size() && IsBlank(line[pos])) {
            ++pos;
        }
        if (pos == line.size() || line[pos] == '#') {
            return true;
        }
        std::string word;
        if (line[pos] == '"') {
            if (!ReadQuoted(line, &pos, &word, error)) {
                return false;
            }
            if (pos < line.size() && !IsBlank(line[pos])) {
                *error = "a quoted word must end at a blank";
                return false;
            }
        } else {
            while (pos < line.size() && !IsBlank(line[pos])) {
                word += line[pos++];
            }
        }
        words->push_back(std::move(word));
    }
}

}  // namespace vymm
