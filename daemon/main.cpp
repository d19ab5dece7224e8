// ruvo, the Usage Monitor: takes no arguments and reads no environment of its own.
#include "core/wan_count.h"
#include "daemon/daemon.h"

#ifdef __GLIBC__
#include <malloc.h>
#endif

int main()
{
#ifdef __GLIBC__
    // The daemon's large buffers are transient: the text of a client or MAC file (over half
    // a MiB at 16,384 clients) lives from its formatting to its write. glibc would raise its
    // threshold for mapping a block of its own to the largest block freed so far and from
    // then on take such buffers from the heap, whose top then stays grown by them between
    // ticks. A fixed threshold keeps every block of 128 KiB and more in a mapping of its
    // own, returned to the system when freed, so the memory held between ticks is the
    // tables'.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
#endif
    return run_daemon(read_wan_count());
}
