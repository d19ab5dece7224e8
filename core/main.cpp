// ruvo, the Usage Monitor: takes no arguments and reads no environment of its own.
#include "core/daemon.h"
#include "core/wan_count.h"

int main()
{
    return run_daemon(read_wan_count());
}
