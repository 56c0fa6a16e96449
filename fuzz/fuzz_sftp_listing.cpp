// A server's directory listing as libcurl delivers it to _CurlSftpListCallback, block by block,
// then ListDir's name filter with a pattern from the input. Names come from the server: any bytes.
#include "fuzz/fuzzinput.h"
#include "sftp/curl_wrapper.h"
#include "utils/stringops.h"

#include <cstdlib>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzInput in(data, size);
    const std::string pattern = in.chunk();
    std::vector<std::string> names;
    while (!in.empty()) {
        const uint8_t shape = in.byte();
        const std::string chunk = in.chunk();
        std::vector<char> block(chunk.begin(), chunk.end()); // exactly the block's bytes
        // libcurl may give the length as size times n either way round.
        size_t unit = 1, count = block.size();
        if ((shape & 1) && count % 2 == 0) {
            unit = 2;
            count /= 2;
        }
        void* list = (shape & 2) ? nullptr : &names;
        const size_t taken = Curl_Wrapper::_CurlSftpListCallback(block.empty() ? nullptr : block.data(),
                                                                 unit, count, list);
        if (taken != unit * count)
            abort();
    }
    for (const std::string& name : names)
        if (name.empty() || name[0] == '.')
            abort();

    std::vector<std::string> kept = names;
    Curl_Wrapper::filterListing(kept, pattern);
    if (kept.size() > names.size())
        abort();
    // Kept names keep their order, and each holds the pattern or every piece of it.
    const std::vector<std::string> pieces = string_findSubStr(pattern, "*")
        ? string_split_stringDelim(pattern, "*")
        : std::vector<std::string>{pattern};
    size_t from = 0;
    for (const std::string& name : kept) {
        while (from < names.size() && names[from] != name)
            ++from;
        if (from == names.size())
            abort();
        ++from;
        for (const std::string& piece : pieces)
            if (!string_findSubStr(name, piece))
                abort();
    }
    return 0;
}
