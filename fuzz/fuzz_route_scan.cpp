// Text laid out like /proc/net/route through the scan behind if_get_default_route. The kernel
// writes that file, but its layout is not ours: whatever it holds must not overrun the fixed-size
// interface field or stop the bench.
#include "fuzz/fuzzinput.h"
#include "net/ifaceops.h"

#include <cstdio>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzInput in(data, size);
    const std::string name = in.chunk();
    std::string text = in.rest();
    if (text.empty())
        return 0; // fmemopen refuses an empty buffer
    FILE* routes = fmemopen(&text[0], text.size(), "r");
    if (routes == nullptr)
        return 0;
    (void)if_scan_default_route(routes, name.c_str());
    fclose(routes);
    return 0;
}
