// The host stand-ins of the firmware library's readers: readfile of a whole file, then the
// IP list (create_iplist) and the number list (create_numlist) of its text, and the list
// operations the daemon applies to them.
#include "fuzz_root.h"

#include "platform/strutils.h"

#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::world();
    fuzz::put_file("/var/run/korel/wanip/wan1", data, size);
    char* text = readfile(fuzz::real("/var/run/korel/wanip/wan1").c_str(), 10);
    if (!text)
        abort(); // the file was just written
    // readfile returns the whole file; its text ends at the first NUL byte.
    if (memcmp(text, data, strnlen(text, size)) != 0)
        abort();

    if (iplist* found = create_iplist(text, 10)) {
        iplist* copy = init_iplist();
        if (!copy)
            abort();
        for (int k = 0; k < found->count; ++k)
            if (append_iplist(copy, found->items[k]) != 0)
                abort();
        // Removing every item again leaves the copy empty.
        for (int k = 0; k < found->count; ++k)
            if (remove_iplist(copy, found->items[k]) != 0)
                abort();
        if (copy->count != 0)
            abort();
        free_iplist(copy);
        free_iplist(found);
    } else {
        abort(); // a text always gives a list, empty when it holds no address
    }

    if (numlist* numbers = create_numlist(text)) {
        if (numbers->count <= 0)
            abort(); // a list is returned only when the text holds a number
        free_numlist(numbers);
    }
    free(text);
    return 0;
}
