// The WAN count ("/etc/VELTO_wanno"): read_wan_count with its minimum, and the number as it
// stands.
#include "fuzz_root.h"

#include "core/wan_count.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::world();
    fuzz::put_file("/etc/VELTO_wanno", data, size);
    int count = read_wan_count();
    if (count < 2)
        abort(); // the daemon never serves fewer than two WAN links
    int number = -1;
    if (!read_wan_number(&number))
        abort();
    return 0;
}
