#include "utils/stringops.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

bool string_startsWith(const char* text, const char* prefix)
{
    if (text == nullptr || prefix == nullptr)
        return false;
    return strncmp(text, prefix, strlen(prefix)) == 0;
}

bool string_endsWith(const char* text, const char* suffix)
{
    if (text == nullptr || suffix == nullptr)
        return false;
    const size_t textLen = strlen(text);
    const size_t suffixLen = strlen(suffix);
    if (textLen < suffixLen)
        return false;
    return memcmp(text + textLen - suffixLen, suffix, suffixLen) == 0;
}

void string_replaceChar(std::string& text, const std::string& from, const std::string& to)
{
    if (from.empty())
        return; // every position would match and the walk would never end
    std::string::size_type pos = 0;
    while ((pos = text.find(from, pos)) != std::string::npos) {
        text.replace(pos, from.size(), to);
        pos += to.size();
    }
}

bool string_findSubStr(const std::string& text, const std::string& search)
{
    return text.find(search) != std::string::npos;
}

void eraseVectorContainsStr(std::vector<std::string>& list, const std::string& s)
{
    list.erase(std::remove_if(list.begin(), list.end(),
                              [&s](const std::string& entry) { return string_findSubStr(entry, s); }),
               list.end());
}

void filterVectorContainsStr(std::vector<std::string>& list, const std::string& s)
{
    list.erase(std::remove_if(list.begin(), list.end(),
                              [&s](const std::string& entry) { return !string_findSubStr(entry, s); }),
               list.end());
}

std::vector<std::string> string_split_stringDelim(const std::string& text, const std::string& delim)
{
    std::vector<std::string> fields;
    if (delim.empty()) {
        // No delimiter to cut at: the whole text is the one field.
        if (!text.empty())
            fields.push_back(text);
        return fields;
    }
    std::string::size_type p = 0;
    for (;;) {
        const std::string::size_type q = text.find(delim, p);
        if (p < text.size() && q != p)
            fields.push_back(text.substr(p, q == std::string::npos ? std::string::npos : q - p));
        if (q == std::string::npos)
            break;
        p = q + delim.size();
    }
    return fields;
}

std::vector<std::string> string_split_multiCharDelim(const std::string& text, const std::string& delims)
{
    std::vector<std::string> pieces;
    std::string::size_type p = 0;
    std::string::size_type q;
    while ((q = text.find_first_of(delims, p)) != std::string::npos) {
        pieces.push_back(text.substr(p, q - p + 1));
        p = q + 1;
    }
    pieces.push_back(text.substr(p));
    return pieces;
}

std::vector<double> double_split_multiCharDelim(const std::string& text, const std::string& delims)
{
    std::vector<double> values;
    for (const std::string& piece : string_split_multiCharDelim(text, delims))
        values.push_back(strtod(piece.c_str(), nullptr));
    return values;
}
