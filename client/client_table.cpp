#include "client/client_table.h"

#include "core/local_time.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>

uint32_t client_chain(uint32_t address)
{
    return ntohl(address) % CLIENT_CHAINS;
}

client_record* find_client(client_table& table, uint32_t address)
{
    for (client_record* r = table.chains[client_chain(address)]; r; r = r->next)
        if (r->address == address)
            return r;
    return nullptr;
}

void free_client_records(client_table& table)
{
    free_entries(table.store);
    for (client_record*& head : table.chains)
        head = nullptr;
    table.records = 0;
}

client_record* add_client(client_table& table, uint32_t address, const char* address_text)
{
    client_record* r = take_entry(table.store);
    if (!r)
        return nullptr;
    memset(r, 0, sizeof *r);
    r->present = 1;
    r->baseline_pending = 1;
    r->address = address;
    // Cut to 15 characters as snprintf would; the record was zeroed, so the rest of the
    // array stays NUL.
    const size_t length = strnlen(address_text, sizeof r->address_text - 1);
    memcpy(r->address_text, address_text, length);
    r->address_length = static_cast<uint8_t>(length);
    client_record*& head = table.chains[client_chain(address)];
    r->next = head;
    head = r;
    ++table.records;
    return r;
}

int client_type_of(const char* name)
{
    for (int type = TYPE_LAN; type < CLIENT_TYPES; ++type)
        if (strcmp(name, client_usage_type_name[type]) == 0)
            return type;
    return TYPE_LAN;
}

bool client_period_start(int kind, time_t t, time_t* start)
{
    if (kind < PERIOD_HOURLY || kind > PERIOD_MONTHLY)
        return false;
    struct tm tm = local_tm(t);
    tm.tm_min = 0;
    tm.tm_sec = 0;
    if (kind >= PERIOD_DAILY)
        tm.tm_hour = 0;
    if (kind == PERIOD_MONTHLY)
        tm.tm_mday = 1;
    *start = normalise_local(&tm);
    return true;
}
