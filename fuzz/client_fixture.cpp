#include "client_fixture.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>

namespace fuzz {

namespace {

client_table* the_table = nullptr;

const char* const KNOWN_CLIENTS[] = {"192.168.1.10", "192.168.1.11", "192.168.1.12", "192.168.50.0",
                                     "10.8.0.0",     "10.8.1.0",     "172.16.0.0",   "0.0.0.0"};

} // namespace

void clear_client_table(client_table& table)
{
    free_client_records(table);
    memset(&table, 0, sizeof table);
}

client_table& empty_client_table(int kind)
{
    if (!the_table) {
        the_table = static_cast<client_table*>(calloc(1, sizeof(client_table)));
        if (!the_table)
            abort();
    }
    clear_client_table(*the_table);
    the_table->kind = kind;
    return *the_table;
}

client_table& client_table_with_known_clients(int kind)
{
    client_table& table = empty_client_table(kind);
    for (const char* text : KNOWN_CLIENTS) {
        struct in_addr a;
        if (!inet_aton(text, &a))
            abort();
        client_record* r = add_client(table, a.s_addr, text);
        if (!r)
            abort();
        r->type = TYPE_LAN;
    }
    return table;
}

} // namespace fuzz
