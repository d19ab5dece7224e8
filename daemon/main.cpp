// ruvo, the Usage Monitor: takes no arguments and reads no environment of its own.
#include "core/wan_count.h"
#include "daemon/daemon.h"

int main()
{
    return run_daemon(read_wan_count());
}
