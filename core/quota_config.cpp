#include "core/quota_config.h"

#include "core/billing_cycle.h"
#include "platform/platform.h"
#include "platform/strutils.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace {

constexpr int KEY_SIZE = 256;

// The three per-link keys of one record: WAN records use the "WAN%d_" keys, the records
// of SIM 1 and SIM 2 the cellular interface's "PIF%d_GOBI_" keys.
void format_key(char (&key)[KEY_SIZE], const wan_usage& record, const char* wan_key,
                const char* sim1_key, const char* sim2_key)
{
    memset(key, 0, sizeof key);
    const char* format = record.sim_number == 0 ? wan_key
                       : record.sim_number == 1 ? sim1_key
                                                : sim2_key;
    snprintf(key, sizeof key, format, record.wan_index + 1);
}

// strtoll of a configuration value, held within the range of an int: the value is not
// range-checked otherwise, so a day of 99999999999 stays a (huge) day and mktime reports
// the overflow instead of the conversion wrapping.
int to_int(const char* text)
{
    long long value = strtoll(text, nullptr, 10);
    if (value > INT_MAX)
        return INT_MAX;
    if (value < INT_MIN)
        return INT_MIN;
    return static_cast<int>(value);
}

// Copies a name into a 128-byte field; longer names are cut to 127 bytes.
void copy_name(char (&field)[NAME_SIZE], const char* text)
{
    snprintf(field, sizeof field, "%s", text ? text : "");
}

} // namespace

time_t get_config_time(const char* absolute_path)
{
    struct stat st;
    if (stat(sys_path(absolute_path).c_str(), &st) != 0)
        return 0;
    return st.st_mtime;
}

time_t billing_end_for(time_t billing_start, int d)
{
    return billing_cycle_end(billing_cycle_start(billing_start, d), d);
}

void load_wan_quota_config(wan_usage* records, int count, time_t* saved_mtime)
{
    time_t mtime = get_config_time(CONFIG_PATH);
    if (mtime == *saved_mtime)
        return;
    taglist* tags = load_taglist_ex(sys_path(CONFIG_PATH).c_str(), 1, 0);
    if (!tags)
        return;
    char key[KEY_SIZE];
    for (int i = 0; i < count; ++i) {
        wan_usage& r = records[i];

        format_key(key, r, "WAN%d_USAGE_START_DAY", "PIF%d_GOBI_USAGE_START_DAY",
                   "PIF%d_GOBI_USAGE_START_DAY_2");
        const char* start_day = get_taglist_default_ex(tags, nullptr, key);
        if (!start_day) {
            r.start_day = -1;
            r.billing_day_applied = 0;
            r.billing_start = 0;
            r.billing_end = 0;
        } else {
            r.start_day = to_int(start_day);
            // Every record of an array is worked out with the first record's start day;
            // kept so, as the billing history of every link has been built this way.
            r.billing_end = billing_end_for(r.billing_start, records[0].start_day);
        }

        format_key(key, r, "WAN%d_USAGE_QUOTA", "PIF%d_GOBI_USAGE_QUOTA",
                   "PIF%d_GOBI_USAGE_QUOTA_2");
        const char* quota = get_taglist_default_ex(tags, nullptr, key);
        // Megabytes to bytes in unsigned arithmetic: a negative value wraps instead of
        // being an undefined shift.
        r.quota_bytes = quota ? static_cast<uint64_t>(strtoll(quota, nullptr, 10)) << 20 : 0;

        format_key(key, r, "WAN%d_USAGE_ACTION", "PIF%d_GOBI_USAGE_ACTION",
                   "PIF%d_GOBI_USAGE_ACTION_2");
        const char* action = get_taglist_default_ex(tags, nullptr, key);
        r.usage_action = 0;
        if (action && strstr(action, "email"))
            r.usage_action |= USAGE_ACTION_EMAIL;
        if (action && strstr(action, "disconnect"))
            r.usage_action |= USAGE_ACTION_DISCONNECT;

        format_key(key, r, "WAN%d_NAME", "WAN%d_NAME", "WAN%d_NAME");
        copy_name(r.wan_name, get_taglist_default_ex(tags, "", key));
        copy_name(r.snmp_name, get_taglist_default_ex(tags, "", "SNMP_NAME"));
    }
    *saved_mtime = mtime;
    free_taglist(tags);
}
