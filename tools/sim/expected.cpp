#include "expected.h"

#include "platform/qelinfo.h"

#include <cinttypes>
#include <cstdio>

namespace {

std::string format_period(time_t start, bool daily)
{
    struct tm tm;
    localtime_r(&start, &tm);
    char text[32];
    strftime(text, sizeof text, daily ? "%Y-%m-%d" : "%Y-%m-%d-%H", &tm);
    return text;
}

time_t local_mktime(struct tm tm)
{
    tm.tm_isdst = -1;
    return mktime(&tm);
}

} // namespace

time_t period_account::start_of(time_t t) const
{
    struct tm tm;
    localtime_r(&t, &tm);
    tm.tm_min = 0;
    tm.tm_sec = 0;
    if (daily_)
        tm.tm_hour = 0;
    return local_mktime(tm);
}

time_t period_account::end_of(time_t start) const
{
    struct tm tm;
    localtime_r(&start, &tm);
    tm.tm_min = 59;
    tm.tm_sec = 59;
    if (daily_)
        tm.tm_hour = 23;
    return local_mktime(tm);
}

void period_account::add(time_t sample, const uint64_t delta[2])
{
    time_t start = start_of(sample);
    if (!has_current_) {
        has_current_ = true;
        current_ = start;
    } else if (start > current_) {
        current_ = start; // the finished period stays as it is
        periods_[current_] = byte_pair{};
    } else if (start < current_) {
        step_back(sample);
    }
    byte_pair& p = periods_[current_];
    p.bytes[0] += delta[0];
    p.bytes[1] += delta[1];
}

void period_account::step_back(time_t sample)
{
    // The current period's traffic is given up.
    periods_.erase(current_);
    // The finished periods the ring still holds, newest first (a ring of n holds n - 1).
    std::vector<time_t> ring;
    for (auto it = periods_.rbegin(); it != periods_.rend() && ring.size() < ring_size_ - 1; ++it)
        ring.push_back(it->first);
    byte_pair resumed;
    if (ring.size() == 1) {
        periods_.erase(ring[0]); // a single entry is dropped
    } else if (ring.size() > 1) {
        // Walk from the newest period back to the first that starts before the new time; the
        // oldest one (the ring's tail) ends the walk without being looked at.
        size_t i = 0, examined = 0;
        for (;;) {
            examined = i;
            if (ring[i] < sample)
                break;
            ++i;
            if (i == ring.size() - 1)
                break;
        }
        // The period where the walk stopped continues when the new time lies in it;
        // otherwise its traffic is given up too.
        if (sample < end_of(ring[examined]))
            resumed = periods_[ring[examined]];
        for (size_t k = 0; k <= i; ++k)
            periods_.erase(ring[k]);
    }
    current_ = start_of(sample);
    periods_[current_] = resumed;
}

void record_account::add(time_t t, const uint64_t delta[2])
{
    hours.add(t, delta);
    days.add(t, delta);
    total[0] += delta[0];
    total[1] += delta[1];
}

time_t billing_cycle_start(int d, time_t now)
{
    struct tm candidate;
    localtime_r(&now, &candidate);
    candidate.tm_mday = d;
    candidate.tm_hour = candidate.tm_min = candidate.tm_sec = 0;
    for (;;) {
        candidate.tm_isdst = -1;
        time_t start = mktime(&candidate); // normalises a day the month lacks
        if (start <= now)
            return start;
        // One month back from the normalised date.
        if (--candidate.tm_mon < 0) {
            candidate.tm_mon = 11;
            candidate.tm_year -= 1;
        }
    }
}

time_t billing_cycle_end(int d, time_t start)
{
    struct tm next;
    localtime_r(&start, &next);
    if (++next.tm_mon > 11) {
        next.tm_mon = 0;
        next.tm_year += 1;
    }
    next.tm_mday = d;
    next.tm_hour = next.tm_min = next.tm_sec = 0;
    return local_mktime(next) - 1;
}

quota_account::quota_account(int wan, std::string link_name, int start_day, uint64_t quota_mb, bool email,
                             bool disconnect, std::string router_name)
    : wan_(wan), link_name_(std::move(link_name)), start_day_(start_day), quota_bytes_(quota_mb << 20),
      email_(email), disconnect_(disconnect), router_name_(std::move(router_name))
{
}

uint64_t quota_account::cycle_usage(const period_account& days) const
{
    // The current day, then the finished days of the cycle back to the first day before it
    // (the daily ring reaches 63 days back).
    uint64_t usage = 0;
    unsigned walked = 0;
    for (auto it = days.periods().rbegin(); it != days.periods().rend() && walked < 64; ++it, ++walked) {
        if (walked > 0 && it->first < billing_start_)
            break;
        usage += it->second.bytes[0] + it->second.bytes[1];
    }
    return usage;
}

void quota_account::check(time_t t, const period_account& days, std::vector<expected_event>& events)
{
    if (billing_end_ < t) {
        billing_start_ = billing_cycle_start(start_day_, t);
        billing_end_ = billing_cycle_end(start_day_, billing_start_);
    }
    const uint64_t usage = cycle_usage(days);
    const uint64_t previous = snapshot_;
    const bool known = previous != 0;
    const double quota = static_cast<double>(quota_bytes_);
    const double line = quota * 0.995, line95 = quota * 0.95, line75 = quota * 0.75;
    const double now = static_cast<double>(usage), before = static_cast<double>(previous);

    bool below = true, reached = false, resumed = false;
    int percent = 0;
    if (disconnect_ && now >= line) {
        below = false;
        reached = known && before < line;
    } else if (disconnect_ && known && before >= line) {
        resumed = true;
    } else if (email_ && known && now >= line95 && before < line95) {
        percent = 95;
    } else if (email_ && known && now >= line75 && before < line75) {
        percent = 75;
    }
    snapshot_ = usage;

    const std::string tool = "/usr/local/korel/bin/wan_usage_suspend " + std::to_string(wan_);
    if (below) {
        if (marker_) {
            events.push_back({t, "command", tool + " off &"});
            marker_ = false;
            resumed = true;
        }
        if (resumed)
            events.push_back({t, "syslog", "Bandwidth allowance monitor: " + link_name_ +
                                               " has entered a new billing cycle, the connection will resume"});
    } else {
        if (reached)
            events.push_back({t, "syslog", "Bandwidth usage for " + link_name_ + " hits 100% of the " +
                                               std::to_string(quota_bytes_ >> 20) + "MB allowance."});
        if (!marker_) {
            events.push_back({t, "command", tool + " on &"});
            marker_ = true;
        }
    }
    if (percent) {
        events.push_back({t, "syslog", "Bandwidth usage for " + link_name_ + " hits " + std::to_string(percent) +
                                           "% of the " + std::to_string(quota_bytes_ >> 20) + "MB allowance."});
        events.push_back({t, "email", "[" + router_name_ + "] " + link_name_ + " Bandwidth Usage Hits " +
                                          std::to_string(percent) + "%"});
    }
}

expectation::expectation(const scenario& s)
    : dual_sim_wan_(s.dual_sim_wan()),
      quota_(QUOTA_WAN, s.links()[QUOTA_WAN - 1].name, QUOTA_START_DAY, QUOTA_MB, true, true,
             qelinfo_router_name())
{
}

void expectation::tick(time_t t, const std::vector<link_tick>& links, int active_sim)
{
    if (records_.empty()) {
        for (size_t i = 0; i < links.size(); ++i) {
            int wan = static_cast<int>(i) + 1;
            records_.push_back({"wan" + std::to_string(wan), wan, 0});
        }
        for (int sim = 1; sim <= 2; ++sim)
            records_.push_back(
                {"wan" + std::to_string(dual_sim_wan_) + ".sim" + std::to_string(sim), dual_sim_wan_, sim});
    }
    static const uint64_t nothing[2] = {0, 0};
    for (record_account& r : records_) {
        const uint64_t* delta = links[static_cast<size_t>(r.wan - 1)].counted;
        if (r.sim != 0 && r.sim != active_sim)
            delta = nothing; // the SIM not in use gets the sample time and no traffic
        r.add(t, delta);
    }
    uint64_t own[2] = {0, 0};
    for (const link_tick& l : links) {
        own[0] += l.own[0];
        own[1] += l.own[1];
    }
    own_hours_.add(t, own);
    quota_.check(t, records_[QUOTA_WAN - 1].days, events_);
}

void expectation::restart() { quota_.restart(); }

int expectation::count(const char* kind) const
{
    int n = 0;
    for (const expected_event& e : events_)
        n += e.kind == kind;
    return n;
}

bool expectation::write(const std::string& path, const scenario& s, time_t last_tick_time, int ticks) const
{
    FILE* out = fopen(path.c_str(), "w");
    if (!out)
        return false;
    fputs("# ruvo-sim: what the daemon must have counted and done in this run.\n"
          "#\n"
          "# Fields are separated by one space; the last field of note, email, syslog and command\n"
          "# lines is the rest of the line.\n"
          "#   run <key> <value...>                    facts of the run\n"
          "#   record <name> <wan> <sim> <link name>   a WAN usage record (sim 0: the link's own)\n"
          "#   day <record> <YYYY-MM-DD> <c1> <c2>     a local day's traffic\n"
          "#   hour <record> <YYYY-MM-DD-HH> <c1> <c2> a local hour's traffic\n"
          "#   total <record> <c1> <c2>                the whole run's traffic\n"
          "#   client_day <YYYY-MM-DD> <first> <second> the LAN clients' traffic fed that day\n"
          "#   own_hour <YYYY-MM-DD-HH> <c1> <c2>      the router's own traffic on all links\n"
          "#   note <epoch> <kind> <text>              what the generator did (wrap, reset, ...)\n"
          "#   email <epoch> <subject>                 an alert e-mail (subject without \"Subject: \")\n"
          "#   syslog <epoch> <text>                   an allowance line (ident \"balance\")\n"
          "#   command <epoch> <command line>          a suspension command\n"
          "#\n"
          "# c1 and c2 are bytes of counter 1 and counter 2, unsigned 64-bit, every sum taken\n"
          "# modulo 2^64. A delta is what the daemon's reader computes from two readings of a\n"
          "# kernel counter: the difference, or, when the counter went down, new + (2^64 - 1 - old).\n"
          "# So a wrap is counted one byte short of the traffic, and a reset (WAN 2, see the note)\n"
          "# adds new + 2^64 - 1 - old: a period that holds it shows a number near 2^64 unless the\n"
          "# counter's earlier traffic in the same period makes the sum wrap back.\n"
          "#\n"
          "# Every sample's whole delta belongs to the hour and the day of its sample time. The\n"
          "# day and hour lines are the periods as the daily and hourly histories must show them\n"
          "# at the end: when the clock steps back, the hourly history gives up the current\n"
          "# hour's traffic and the hours that start at or after the new time, and the hour that\n"
          "# holds the new time continues with its earlier traffic (a step within one day leaves\n"
          "# the days alone). A SIM record gets its link's deltas while its SIM is in use, and\n"
          "# periods of zero traffic otherwise.\n"
          "#\n"
          "# A history line shows (bytes >> 20) & 0xffffffff MiB per counter. For a counter whose\n"
          "# day lines all stay below 2^52 bytes, the MiB of the day lines add up to the total\n"
          "# less the cut-off parts: 0 <= total - 2^20 * sum(MiB) < number of lines * 2^20.\n"
          "#\n"
          "# The links carry the clients' traffic and the router's own: every tick a link's\n"
          "# counter 1 grows by its clients' first counters and its own counter 1 traffic, and\n"
          "# its counter 2 by their second counters and its own counter 2 traffic.\n"
          "#\n"
          "# client_day is the growth of the kernel's client counters (first/second), which\n"
          "# start at 0 with the run: the links' traffic less the router's own. It is not what\n"
          "# the client files must show: the daemon counts a client from its second reading on,\n"
          "# and then with its whole kernel counters, and it counts the whole counters again\n"
          "# after a restart and after the clock goes back into an hour that has a file.\n"
          "#\n"
          "# own_hour is the router's own traffic (a fixed amount per tick on every link that\n"
          "# carries traffic) by the hours as the hourly history repairs them, as hour lines are.\n"
          "# Outside the hours the daemon counts otherwise (after a restart, the hour the clock\n"
          "# steps back into, the hour of a counter reset), an hourly client file adds up to the\n"
          "# router's hour total less own_hour (less one byte per wrap in the hour), within what\n"
          "# the cuts to KiB per client line and to MiB in the total lose.\n",
          out);

    const timeline& tl = s.events();
    fprintf(out, "run seed %" PRIu64 "\n", s.options().seed);
    fprintf(out, "run days %d\n", s.options().days);
    fprintf(out, "run links %d\n", s.options().links);
    fprintf(out, "run clients %d\n", s.options().clients);
    fprintf(out, "run ticks %d\n", ticks);
    fprintf(out, "run start %lld\n", static_cast<long long>(SIM_START));
    fprintf(out, "run first_tick %lld\n", static_cast<long long>(tl.time_of(1)));
    fprintf(out, "run last_tick %lld\n", static_cast<long long>(last_tick_time));
    fprintf(out, "run dual_sim_wan %d\n", s.dual_sim_wan());
    fprintf(out, "run sim_switch %lld\n", static_cast<long long>(tl.time_of(tl.sim_switch_tick)));
    fprintf(out, "run counter_reset %lld\n", static_cast<long long>(tl.time_of(tl.reset_tick)));
    fprintf(out, "run restart %lld\n", static_cast<long long>(tl.time_of(tl.restart_tick)));
    fprintf(out, "run clock_back %lld %lld\n", static_cast<long long>(tl.time_of(tl.clock_back_tick - 1)),
            static_cast<long long>(tl.time_of(tl.clock_back_tick)));
    fprintf(out, "run quota_wan %d %d %" PRIu64 " %s\n", QUOTA_WAN, QUOTA_START_DAY, QUOTA_MB, QUOTA_ACTION);

    for (const record_account& r : records_)
        fprintf(out, "record %s %d %d %s\n", r.name.c_str(), r.wan, r.sim,
                s.links()[static_cast<size_t>(r.wan - 1)].name.c_str());
    for (const record_account& r : records_)
        for (const auto& [start, p] : r.days.periods())
            fprintf(out, "day %s %s %" PRIu64 " %" PRIu64 "\n", r.name.c_str(), format_period(start, true).c_str(),
                    p.bytes[0], p.bytes[1]);
    for (const record_account& r : records_)
        for (const auto& [start, p] : r.hours.periods())
            fprintf(out, "hour %s %s %" PRIu64 " %" PRIu64 "\n", r.name.c_str(), format_period(start, false).c_str(),
                    p.bytes[0], p.bytes[1]);
    for (const record_account& r : records_)
        fprintf(out, "total %s %" PRIu64 " %" PRIu64 "\n", r.name.c_str(), r.total[0], r.total[1]);
    for (const auto& [day, fed] : s.client_days())
        fprintf(out, "client_day %s %" PRIu64 " %" PRIu64 "\n", day.c_str(), fed.first, fed.second);
    for (const auto& [start, p] : own_hours_.periods())
        fprintf(out, "own_hour %s %" PRIu64 " %" PRIu64 "\n", format_period(start, false).c_str(), p.bytes[0],
                p.bytes[1]);
    for (const scenario::note& n : s.notes())
        fprintf(out, "note %lld %s %s\n", static_cast<long long>(n.when), n.kind.c_str(), n.text.c_str());
    for (const expected_event& e : events_)
        fprintf(out, "%s %lld %s\n", e.kind.c_str(), static_cast<long long>(e.when), e.text.c_str());
    bool ok = !ferror(out);
    return fclose(out) == 0 && ok;
}
