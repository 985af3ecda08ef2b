// Small text helpers shared by the tools' line formats.
#ifndef VYMM_TOOLS_TEXT_LINES_H
#define VYMM_TOOLS_TEXT_LINES_H

#include <string>
#include <vector>

namespace vymm {

constexpr char kBlanks[] = " \t\r\n\v\f";

std::string Trim(const std::string& text);

// "NAME:LINE: ", the head of a message about one line of a file.
std::string LinePrefix(const std::string& name, int line);

// Splits a line into words at blanks. A word in double quotes may hold
// blanks and the escapes \" \\ \n \t and \xNN (any byte); an unquoted word
// that begins with '#' starts a comment to the end of the line. False on an
// unclosed quote or an unknown escape, with the reason in error.
bool SplitWords(const std::string& line, std::vector<std::string>* words, std::string* error);

}  // namespace vymm

#endif
