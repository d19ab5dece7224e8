// The shell commands the daemon runs for its backups, as tests expect them.
#pragma once

#include <string>
#include <vector>

constexpr const char* SAVECONFIG_COMMAND = "/usr/local/korel/bin/saveconfig usage &";

// Copies of the client history directories, run with every backup.
inline std::vector<std::string> client_backup_commands()
{
    return {"rm -rf /tmp/ruvo_client_hourly",
            "rm -rf /tmp/ruvo_client_daily",
            "rm -rf /tmp/ruvo_client_monthly",
            "cp -rf /var/run/korel/client_usage_hourly /tmp/ruvo_client_hourly",
            "cp -rf /var/run/korel/client_usage_daily /tmp/ruvo_client_daily",
            "cp -rf /var/run/korel/client_usage_monthly /tmp/ruvo_client_monthly",
            "rm -rf /tmp/ruvo_client_mac_hourly;cp -rf /var/run/korel/client_usage_mac_hourly "
            "/tmp/ruvo_client_mac_hourly"};
}

// A full backup: the client copies, then the configuration saver in the background.
inline std::vector<std::string> full_backup_commands()
{
    std::vector<std::string> commands = client_backup_commands();
    commands.emplace_back(SAVECONFIG_COMMAND);
    return commands;
}

// Start-up: the live client directories are removed, then restored from their backups.
inline std::vector<std::string> start_up_commands()
{
    return {"rm -rf /var/run/korel/client_usage_hourly",
            "rm -rf /var/run/korel/client_usage_daily",
            "rm -rf /var/run/korel/client_usage_monthly",
            "rm -rf /var/run/korel/client_usage_mac_hourly",
            "cp -r /tmp/ruvo_client_hourly/* /var/run/korel/client_usage_hourly/",
            "cp -r /tmp/ruvo_client_daily/* /var/run/korel/client_usage_daily/",
            "cp -r /tmp/ruvo_client_monthly/* /var/run/korel/client_usage_monthly/",
            "cp -f /tmp/ruvo_client_mac_hourly/* /var/run/korel/client_usage_mac_hourly/"};
}
