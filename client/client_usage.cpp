#include "client/client_usage.h"

#include "client_mac/mac_usage.h"

#include <new>

// Client usage is not counted yet; the block only holds the period kinds of its tables.
struct client_usage_tables {
    int kinds[3];
};

void client_usage_cleanup_history_files() { ruvo_client_mac_usage_history_clear(); }

client_usage_tables* client_usage_init()
{
    client_usage_tables* tables = new (std::nothrow) client_usage_tables{{0, 1, 2}};
    if (!tables)
        return nullptr;
    ruvo_client_mac_usage_init();
    return tables;
}

void read_client_usage(client_usage_tables*) {}
void save_client_usage(client_usage_tables*) {}
void create_backup_client_usage(client_usage_tables*) { ruvo_client_mac_usage_history_backup(); }
void client_usage_free(client_usage_tables* tables) { delete tables; }
