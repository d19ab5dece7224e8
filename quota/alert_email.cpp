#include "quota/alert_email.h"

#include "core/text_format.h"
#include "platform/platform.h"
#include "platform/qelinfo.h"
#include "quota/balance_log.h"
#include "quota/date_format.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char* SENDEMAIL = "/usr/local/korel/bin/sendemail";
constexpr const char* MESSAGE_TEMPLATE = "/tmp/usage_alert_msg.XXXXXX";

unsigned long long megabytes(uint64_t bytes) { return static_cast<unsigned long long>(bytes >> 20); }

char sim_letter(const wan_usage& r) { return r.sim_number == 1 ? 'A' : 'B'; }

// A header value on one line: a name holding CR or LF cannot add a header line.
std::string single_line(const char* text)
{
    std::string line = text ? text : "";
    for (char& c : line)
        if (c == '\r' || c == '\n')
            c = ' ';
    return line;
}

// The share of the allowance used, in whole percent (rounded down). An allowance of 0 is
// used up by any traffic: 100. A share too large for the number shown is held at its end.
unsigned percentage(uint64_t usage, uint64_t quota)
{
    if (usage == 0)
        return 0;
    if (quota == 0)
        return 100;
    double share = static_cast<double>(usage * 100) / static_cast<double>(quota);
    return share >= static_cast<double>(UINT_MAX) ? UINT_MAX : static_cast<unsigned>(share);
}

} // namespace

std::string brand_web_address(const char* brand_word)
{
    return std::string("www.") + brand_word + ".com";
}

std::string build_usage_table(const wan_usage* records, int count)
{
    std::string table;
    for (int i = 0; i < count; ++i) {
        const wan_usage& r = records[i];
        if (r.wan_name[0] == '\0')
            continue;
        if (r.start_day >= 1) {
            uint64_t usage = r.billing_bytes[0] + r.billing_bytes[1];
            if (r.sim_number == 0)
                append_format(table, "%s : %lluMB / %lluMB (%u%%) used in this billing cycle\r\n", r.wan_name,
                       megabytes(usage), megabytes(r.quota_bytes), percentage(usage, r.quota_bytes));
            else
                append_format(table, "%s SIM %c : %lluMB / %lluMB (%u%%) used in this billing cycle\r\n",
                       r.wan_name, sim_letter(r), megabytes(usage), megabytes(r.quota_bytes),
                       percentage(usage, r.quota_bytes));
        } else {
            uint64_t usage = r.month_bytes[0] + r.month_bytes[1];
            if (r.sim_number == 0)
                append_format(table, "%s : %lluMB used in this calendar month\r\n", r.wan_name, megabytes(usage));
            else
                append_format(table, "%s SIM %c : %lluMB used in this calendar month\r\n", r.wan_name,
                       sim_letter(r), megabytes(usage));
        }
    }
    return table;
}

std::string build_alert_footer()
{
    std::string footer;
    const char* company = qelinfo_company_name();
    if (!company)
        company = "";
    const char* brand = strcmp(company, "Belvire") == 0   ? "belvire"
                        : strcmp(company, "Ardenta") == 0 ? "ardenta"
                                                          : nullptr;
    if (brand)
        append_format(footer, "%s | %s\r\n", company, brand_web_address(brand).c_str());
    else
        append_format(footer, "%s \r\n", company);
    append_format(footer, "%s\r\n", date_longform(sys_time()));
    return footer;
}

int send_alert_email(const std::string& message)
{
    std::string path = sys_path(MESSAGE_TEMPLATE);
    std::vector<char> name(path.begin(), path.end());
    name.push_back('\0');
    int fd = mkstemp(name.data());
    if (fd < 0)
        return -1;
    FILE* stream = fdopen(fd, "w");
    if (!stream) {
        close(fd);
        return 1; // the empty file stays behind
    }
    // The file's name as the mail sender sees it: the template with mkstemp's six characters.
    std::string file = MESSAGE_TEMPLATE;
    file.replace(file.size() - 6, 6, name.data() + strlen(name.data()) - 6);
    fprintf(stream, "%s\r\n", message.c_str());
    std::string command;
    append_format(command, "(%s -v -f %s; /bin/rm %s) &", SENDEMAIL, file.c_str(), file.c_str());
    fflush(stream);
    fclose(stream);
    return sys_system(command.c_str());
}

int compose_usage_alert(wan_usage* records, int index, int count, wan_usage* sim_records,
                        int sim_index, int sim_count)
{
    if (index >= 0 ? (sim_index >= 0 || index >= count || !records)
                   : (sim_index < 0 || sim_count < 1 || sim_index >= sim_count || !sim_records))
        return 1;
    const wan_usage& r = index >= 0 ? records[index] : sim_records[sim_index];
    if (!(r.alert_state & 3u))
        return 0;
    const int p = (r.alert_state & 2u) ? 95 : 75;
    const unsigned long long allowance = megabytes(r.quota_bytes);
    const bool sim = index < 0;

    if (sim)
        log_balance("Bandwidth usage for %s SIM %c hits %d%% of the %lluMB allowance.", r.wan_name,
                    sim_letter(r), p, allowance);
    else
        log_balance("Bandwidth usage for %s hits %d%% of the %lluMB allowance.", r.wan_name, p, allowance);

    const char* router = qelinfo_router_name();
    std::string message;
    if (sim)
        append_format(message, "Subject: [%s] %s SIM %c Bandwidth Usage Hits %d%%\r\n", single_line(router).c_str(),
               single_line(r.wan_name).c_str(), sim_letter(r), p);
    else
        append_format(message, "Subject: [%s] %s Bandwidth Usage Hits %d%%\r\n", single_line(router).c_str(),
               single_line(r.wan_name).c_str(), p);
    message += "\r\n";
    append_format(message, "This is an automated message generated from %s (%s:%s).\r\n", router ? router : "",
           qelinfo_product_name(), qelinfo_serial());
    message += "\r\n";
    append_format(message, "%s\r\n", datetime_longform(sys_time()));
    if (sim)
        append_format(message, "Bandwidth usage for %s SIM %c hits %d%% of the %lluMB allowance. ", r.wan_name,
               sim_letter(r), p, allowance);
    else
        append_format(message, "Bandwidth usage for %s hits %d%% of the %lluMB allowance. ", r.wan_name, p,
               allowance);
    if (r.alert_state & 2u)
        message += "No further notification email will be sent.\r\n";
    message += "\r\n";
    message += "Current Usage for All WAN:\r\n";
    message += "\r\n";
    append_format(message, "%s\r\n", build_usage_table(records, count).c_str());
    if (sim_count > 0 && sim_records) {
        message += "Current Usage for All Celluar WAN:\r\n"; // spelled so, deliberately
        message += "\r\n";
        append_format(message, "%s\r\n", build_usage_table(sim_records, sim_count).c_str());
    }
    append_format(message, "%s\r\n", build_alert_footer().c_str());
    send_alert_email(message);
    return 1;
}
