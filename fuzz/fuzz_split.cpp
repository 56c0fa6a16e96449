// The string and list helpers that cut command output, configuration text and server listings,
// each checked against the property its callers rely on.
#include "fuzz/fuzzinput.h"
#include "utils/stringops.h"

#include <cstdlib>
#include <string>
#include <vector>

namespace {

void require(bool holds)
{
    if (!holds)
        abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzInput in(data, size);
    const std::string delim = in.chunk();
    const std::string to = in.chunk();
    const std::string text = in.rest();

    // Fields between whole delimiters: none empty, none holding the delimiter, and with the
    // delimiters they account for every byte of the text.
    size_t total = 0;
    for (const std::string& field : string_split_stringDelim(text, delim)) {
        require(!field.empty() && (delim.empty() || field.find(delim) == std::string::npos));
        total += field.size();
    }
    for (size_t q = text.find(delim); !delim.empty() && q != std::string::npos; q = text.find(delim, q + delim.size()))
        total += delim.size();
    require(total == text.size());

    // Pieces that join back into the text, each but the last ending with its only delimiter.
    const std::vector<std::string> pieces = string_split_multiCharDelim(text, delim);
    std::string joined;
    for (size_t i = 0; i < pieces.size(); ++i) {
        const bool last = i + 1 == pieces.size();
        require(last || (!pieces[i].empty() && delim.find(pieces[i].back()) != std::string::npos));
        require(pieces[i].find_first_of(delim) >= pieces[i].size() - (last ? 0 : 1));
        joined += pieces[i];
    }
    require(!pieces.empty() && joined == text);
    require(double_split_multiCharDelim(text, delim).size() == pieces.size());

    // Prefix and suffix as the C strings the helpers get.
    const std::string t = text.c_str(), p = delim.c_str();
    require(string_startsWith(text.c_str(), delim.c_str()) == (t.compare(0, p.size(), p) == 0));
    const bool ends = t.size() >= p.size() && t.compare(t.size() - p.size(), p.size(), p) == 0;
    require(string_endsWith(text.c_str(), delim.c_str()) == ends);

    // The two list filters split a list between them.
    const std::vector<std::string> all = string_split_stringDelim(text, "\n");
    std::vector<std::string> erased = all, kept = all;
    eraseVectorContainsStr(erased, delim);
    filterVectorContainsStr(kept, delim);
    require(erased.size() + kept.size() == all.size());
    for (const std::string& entry : erased)
        require(!string_findSubStr(entry, delim));
    for (const std::string& entry : kept)
        require(string_findSubStr(entry, delim));

    // A single character replaced by text without it leaves none behind.
    std::string replaced = text;
    string_replaceChar(replaced, delim, to);
    require(!delim.empty() || replaced == text);
    require(delim.size() != 1 || to.find(delim) != std::string::npos || replaced.find(delim) == std::string::npos);
    return 0;
}
