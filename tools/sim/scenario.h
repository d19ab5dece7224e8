// The simulated router's side of the run: its configuration, its WAN links with their kernel
// counters, its LAN clients, and the timeline of the things that happen to them. It writes
// the kernel files the daemon reads before every tick.
//
// The traffic is coherent: every tick each link's volume is drawn, and the clients that go
// out through the link and are active share it; the link's counters grow by their shares
// plus the router's own traffic on the link (README.md, "How traffic is made").
#pragma once

#include "prng.h"

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <utility>
#include <vector>

struct scenario_options {
    int days = 3;
    int links = 3;      // WAN links, at least 2; the last one is the dual-SIM link
    int clients = 200;  // LAN clients
    uint64_t seed = 1;
};

constexpr unsigned SIM_TICK_SECONDS = 30;
// 2024-02-28 00:00:00 UTC: the run crosses the end of a leap February.
constexpr time_t SIM_START = 1709078400;
constexpr time_t CLOCK_STEP_BACK = 7200;

// The allowance of WAN 1, as the configuration states it.
constexpr int QUOTA_WAN = 1;
constexpr int QUOTA_START_DAY = 29;
constexpr uint64_t QUOTA_MB = 2048;
constexpr const char* QUOTA_ACTION = "email,disconnect";
constexpr const char* ROUTER_SNMP_NAME = "sim-router";
constexpr const char* LAN_ADDRESS = "192.168.0.1";

// The router's own traffic on every link that carries traffic, per tick (name look-ups,
// time, the firmware's own checks): counter 1 and counter 2, in bytes. The kernel counts
// it in the link's counters and in no LAN client's.
constexpr uint64_t ROUTER_OWN_BYTES[2] = {4096, 2048};

// The ticks (1-based) at which the scenario's events happen. Before the clock step tick k
// is at SIM_START + 30 k, from it on 2 h earlier.
struct timeline {
    int ticks = 0;           // number of ticks in the run
    int reset_tick = 0;      // WAN 2's counters drop to small values (a link restart)
    int sim_switch_tick = 0; // the dual-SIM link changes from SIM 1 to SIM 2
    int restart_tick = 0;    // after this tick's SIGHUP-like pass the daemon is restarted
    int clock_back_tick = 0; // this tick's clock is 2 h earlier than the previous tick's

    time_t time_of(int tick) const;
};

timeline make_timeline(int days);

// One WAN link with its two kernel counters.
struct wan_link {
    std::string name;
    uint64_t day_bytes;   // mean traffic of its clients in a day, both counters together
    uint64_t counter[2];  // the kernel's raw counters
    uint64_t own_total[2] = {0, 0}; // the router's own traffic on the link since the start
    bool dual_sim = false;
};

// What the kernel's counters did on one tick, as the daemon's reader will take it.
struct link_tick {
    uint64_t fed[2];      // the traffic of the interval, in bytes: the clients' and the router's own
    uint64_t own[2];      // the router's own part of fed
    uint64_t counted[2];  // the delta the daemon computes from the two raw readings
};

struct lan_client {
    uint64_t mac;
    uint32_t address_index;     // index into the LAN address plan
    uint32_t new_address_index; // after the address change
    uint32_t link;              // the WAN link (0-based) its traffic goes through: its index modulo the links
    uint64_t size_bytes;        // its size: how much of its link's traffic it takes when active
    uint64_t counter[2];        // the kernel's counters of the current address
    int join_tick = 0;          // present from this tick on
    int change_tick = 0;        // the address changes on this tick (0: never)
    int leave_tick = 0;         // gone from the ARP table on this tick (0: never)
    bool wireless = false;      // a leaving wireless client is named in the deleted-ARP dump
};

class scenario {
public:
    scenario(const scenario_options& options, const std::string& root);

    // The files of the router that do not change: the WAN count, the dual-SIM list, the
    // configuration, the LAN address, the clock marker, the link directories.
    bool write_static_files() const;

    // Advances the links and clients to tick k (time t). wan1_suspended: WAN 1 carries no
    // traffic while its suspension marker is set (neither its clients' nor the router's
    // own). Returns the per-link traffic.
    std::vector<link_tick> advance(int tick, time_t t, bool wan1_suspended);

    // Writes the kernel files of the current state at time t: link and client counters,
    // the ARP table, the active SIM slot, the deleted-ARP dump.
    bool write_kernel_files(time_t t, int tick) const;

    // The SIM in use on the dual-SIM link at tick k (1 or 2).
    int active_sim(int tick) const { return tick >= timeline_.sim_switch_tick ? 2 : 1; }

    const timeline& events() const { return timeline_; }
    // The seed of the faults' own generator (ruvo-sim --faults): drawn after every other
    // generator of the run, so that the traffic is the same with and without faults.
    uint64_t fault_seed() const { return fault_seed_; }
    const std::vector<wan_link>& links() const { return links_; }
    int dual_sim_wan() const { return static_cast<int>(links_.size()); }
    const scenario_options& options() const { return options_; }

    // Texts for the summary of what the generator did ("wrap", "reset", ...).
    struct note {
        time_t when;
        std::string kind;
        std::string text;
    };
    const std::vector<note>& notes() const { return notes_; }

    // The LAN clients' traffic fed per local day ("YYYY-MM-DD"), both counters: what the
    // kernel's client counters grew by, which is what the links carried less the router's
    // own traffic; not what the daemon's client files must show (it counts twice after a
    // restart, for instance).
    const std::map<std::string, std::pair<uint64_t, uint64_t>>& client_days() const { return client_days_; }

private:
    std::string real(const char* absolute) const { return root_ + absolute; }
    bool client_listed(const lan_client& c, int tick) const;
    bool client_in_arp(const lan_client& c, int tick) const;
    bool client_can_send(const lan_client& c, int tick) const;
    uint32_t client_address(const lan_client& c, int tick) const;

    scenario_options options_;
    std::string root_;
    timeline timeline_;
    std::vector<wan_link> links_;
    std::vector<lan_client> clients_;
    std::vector<uint64_t> weights_; // advance's scratch: each client's weight on this tick
    splitmix64 link_random_;
    splitmix64 client_random_;
    uint64_t fault_seed_ = 0;
    std::vector<note> notes_;
    std::map<std::string, std::pair<uint64_t, uint64_t>> client_days_;
};

// The dotted LAN address of an index of the address plan (192.168.0.2 upwards).
std::string lan_address(uint32_t index);
// "aa:bb:cc:dd:ee:ff".
std::string mac_text(uint64_t mac);
// The daemon's reading of a counter that went from old_value to new_value: the difference,
// or, when the counter went down, new + (2^64 - 1 - old) (a wrap counted one byte short, a
// reset counted as a wrap).
uint64_t counted_delta(uint64_t old_value, uint64_t new_value);
