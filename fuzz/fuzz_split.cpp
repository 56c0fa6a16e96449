// The string and list helpers that cut command output, configuration text and server listings,
// each checked against the property its callers rely on.
#include "fuzz/fuzzinput.h"
#include "utils/stringops.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

void checkStringDelim(const std::string& text, const std::string& delim)
{
    size_t total = 0;
    for (const std::string& field : string_split_stringDelim(text, delim)) {
        if (field.empty() || (!delim.empty() && field.find(delim) != std::string::npos))
            abort();
        total += field.size();
    }
    if (total > text.size())
        abort();
}

void checkMultiCharDelim(const std::string& text, const std::string& delims)
{
    const std::vector<std::string> pieces = string_split_multiCharDelim(text, delims);
    std::string joined;
    for (size_t i = 0; i < pieces.size(); ++i) {
        const std::string& piece = pieces[i];
        const bool last = i + 1 == pieces.size();
        // Every piece but the last ends with its delimiter, the only one it holds.
        const std::string body = last ? piece : piece.substr(0, piece.size() - 1);
        if ((!last && (piece.empty() || delims.find(piece.back()) == std::string::npos))
            || body.find_first_of(delims) != std::string::npos)
            abort();
        joined += piece;
    }
    if (joined != text || pieces.empty())
        abort();
    if (double_split_multiCharDelim(text, delims).size() != pieces.size())
        abort();
}

void checkPrefixes(const std::string& text, const std::string& part)
{
    const std::string t = text.c_str(), p = part.c_str(); // the C-string view the helpers get
    if (string_startsWith(text.c_str(), part.c_str()) != (t.compare(0, p.size(), p) == 0 && t.size() >= p.size()))
        abort();
    const bool ends = t.size() >= p.size() && t.compare(t.size() - p.size(), p.size(), p) == 0;
    if (string_endsWith(text.c_str(), part.c_str()) != ends)
        abort();
}

void checkFilters(const std::string& text, const std::string& s)
{
    std::vector<std::string> all = string_split_stringDelim(text, "\n");
    std::vector<std::string> erased = all, filtered = all;
    eraseVectorContainsStr(erased, s);
    filterVectorContainsStr(filtered, s);
    if (erased.size() + filtered.size() != all.size())
        abort();
    for (const std::string& entry : erased)
        if (string_findSubStr(entry, s))
            abort();
    for (const std::string& entry : filtered)
        if (!string_findSubStr(entry, s))
            abort();
}

void checkReplace(std::string text, const std::string& from, const std::string& to)
{
    const std::string before = text;
    string_replaceChar(text, from, to);
    if (from.empty() && text != before)
        abort();
    // With no overlap between what goes and what comes, nothing of the old text stays.
    if (!from.empty() && to.find(from) == std::string::npos && from.size() == 1 && text.find(from) != std::string::npos)
        abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzInput in(data, size);
    const std::string delim = in.chunk();
    const std::string to = in.chunk();
    const std::string text = in.rest();
    checkStringDelim(text, delim);
    checkMultiCharDelim(text, delim);
    checkPrefixes(text, delim);
    checkFilters(text, delim);
    checkReplace(text, delim, to);
    return 0;
}
