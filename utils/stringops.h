// Byte-exact string and list helpers for command output, configuration text and server listings.
#ifndef TOV_UTILS_STRINGOPS_H
#define TOV_UTILS_STRINGOPS_H

#include <string>
#include <vector>

bool string_startsWith(const char* text, const char* prefix);
bool string_endsWith(const char* text, const char* suffix);
// Replaces every occurrence of a string (not a character); replaced text is never searched again.
void string_replaceChar(std::string& text, const std::string& from, const std::string& to);
bool string_findSubStr(const std::string& text, const std::string& search);

// Removes the entries that contain s.
void eraseVectorContainsStr(std::vector<std::string>& list, const std::string& s);
// Keeps only the entries that contain s.
void filterVectorContainsStr(std::vector<std::string>& list, const std::string& s);

// Fields between whole delimiters; empty fields are dropped.
std::vector<std::string> string_split_stringDelim(const std::string& text, const std::string& delim);
// Each field keeps its terminating delimiter character, and the remainder is always appended, even
// empty: "1;2;" gives "1;", "2;" and "".
std::vector<std::string> string_split_multiCharDelim(const std::string& text, const std::string& delims);
// The same walk, each piece read with strtod: "1.5;2;" gives 1.5, 2.0 and 0.0.
std::vector<double> double_split_multiCharDelim(const std::string& text, const std::string& delims);

#endif
