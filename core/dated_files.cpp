#include "core/dated_files.h"

#include "core/client_kinds.h"
#include "core/local_time.h"
#include "core/read_file.h"
#include "platform/platform.h"
#include "platform/strutils.h"

#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <unistd.h>

namespace {

constexpr const char* TIME_INITIALIZED = "/var/run/korel/time_initialized";

int compare_descending(const void* a, const void* b)
{
    return strcmp(*static_cast<char* const*>(b), *static_cast<char* const*>(a));
}

void sort_descending(iplist* names)
{
    if (names->count > 1)
        qsort(names->items, static_cast<size_t>(names->count), sizeof(char*), compare_descending);
}

} // namespace

std::string dated_file_stem(int kind, time_t start)
{
    struct tm tm = local_tm(start);
    char name[32];
    if (strftime(name, sizeof name, kind == PERIOD_HOURLY ? "%Y-%m-%d-%H" : "%Y-%m-%d", &tm) == 0)
        return std::string();
    return name;
}

std::string dated_file_path(const char* dir, const std::string& stem)
{
    return std::string(dir) + "/" + stem + ".csv";
}

void client_usage_dir_limit(const char* dir, int kind, int keep)
{
    dir_ptr d = open_directory(dir);
    if (!d)
        return;
    iplist* names = init_iplist();
    if (!names)
        return;
    while (const dirent* entry = readdir(d.get())) {
        if (entry->d_name[0] == '.')
            continue;
        std::string stem(entry->d_name, strcspn(entry->d_name, "."));
        insert_iplist(names, stem.c_str());
    }
    sort_descending(names);
    if (is_readable(TIME_INITIALIZED) && kind >= PERIOD_HOURLY && kind <= PERIOD_MONTHLY) {
        // Files dated after the current period (the clock went back) go first.
        std::string current = dated_file_stem(kind == PERIOD_HOURLY ? PERIOD_HOURLY : PERIOD_DAILY, sys_time());
        while (names->count > 0 && strcmp(names->items[0], current.c_str()) > 0) {
            std::string newest = names->items[0];
            unlink(sys_path(dated_file_path(dir, newest).c_str()).c_str());
            remove_iplist(names, newest.c_str());
            sort_descending(names);
        }
    }
    for (int i = keep < 0 ? 0 : keep; i < names->count; ++i)
        unlink(sys_path(dated_file_path(dir, names->items[i]).c_str()).c_str());
    free_iplist(names);
}
