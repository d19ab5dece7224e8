// The shared period-line reader: the input as one line through read_period_line and the
// hourly and daily backup-line readers (each parsed line written back through the writers),
// and as a whole monthly history through rewrite_period_lines.
#include "fuzz_root.h"

#include "history/period_line.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

FILE* sink()
{
    static FILE* null_stream = fopen("/dev/null", "w");
    if (!null_stream)
        abort();
    return null_stream;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::world();
    const std::string text = fuzz::as_text(data, size);
    struct tm first, last;
    uint64_t v1 = 0, v2 = 0;
    if (read_period_line(text.c_str(), &first, &last, &v1, &v2)) {
        write_period_line(sink(), first, last, to_mib(v1), to_mib(v2));
        write_period_backup_line(sink(), first, last, v1, v2);
    }
    if (read_hourly_backup_line(text.c_str(), &first, &v1, &v2)) {
        write_hourly_line(sink(), first, to_mib(v1), to_mib(v2));
        write_hourly_backup_line(sink(), first, v1, v2);
    }
    if (read_daily_backup_line(text.c_str(), &first, &v1, &v2)) {
        write_daily_line(sink(), first, to_mib(v1), to_mib(v2));
        write_daily_backup_line(sink(), first, v1, v2);
    }

    fuzz::put_file("/var/run/korel/wan1/usage_history.monthly", data, size);
    FILE* in = fopen(fuzz::real("/var/run/korel/wan1/usage_history.monthly").c_str(), "r");
    if (!in)
        abort();
    rewrite_period_lines(sink(), in, ALL_LINES, fuzz::FIXED_CLOCK);
    fclose(in);
    return 0;
}
