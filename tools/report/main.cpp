// ruvo-report: prints the usage that the ruvo daemon has recorded on a router.
//
// Exit status: 0 when at least one usage file (a link's, a router total or a client file)
// could be read; 1 when none could (the configuration, the WAN count and the suspension
// markers alone do not count); 2 for a wrong command line or an HTML file that cannot be
// written.
#include "tools/report/report_html.h"
#include "tools/report/report_json.h"
#include "tools/report/report_text.h"
#include "tools/report/usage_reader.h"

#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

namespace {

constexpr int DEFAULT_WIDTH = 40;
constexpr int MAX_WIDTH = 500;

const char* USAGE =
    "usage: ruvo-report [--root DIR] [--html FILE] [--width N] [--raw] [--summary | --json]\n"
    "\n"
    "Prints the usage that ruvo has recorded: a summary per WAN link and SIM card (today,\n"
    "yesterday, this month, this billing cycle, the allowance and where the cycle is\n"
    "heading), then per link the hourly, daily, monthly and billing-cycle tables, the\n"
    "allowances, the router totals and the top clients by IP address and by MAC address.\n"
    "\n"
    "  --root DIR    read the router's files under DIR instead of /\n"
    "  --html FILE   also write the report as a self-contained HTML page with charts\n"
    "  --width N     width of the text bars in characters, 0 to 500 (default 40; 0: none)\n"
    "  --raw         figures in the files' own units (MiB for links, KiB for clients)\n"
    "                instead of scaled ones (B, KiB, MiB, GiB, TiB)\n"
    "  --summary     print only the summary\n"
    "  --json        print the whole report as one JSON document, amounts in bytes\n"
    "  --help        print this text\n"
    "\n"
    "Exit status: 0 when at least one usage file could be read, 1 when none could,\n"
    "2 for a wrong command line or an HTML file that cannot be written.\n";

int usage_error(const std::string& message)
{
    std::cerr << "ruvo-report: " << message << '\n' << USAGE;
    return 2;
}

bool parse_width(const std::string& text, int* width)
{
    if (text.empty() || text.size() > 3 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    *width = std::stoi(text);
    return *width <= MAX_WIDTH;
}

} // namespace

int main(int argc, char** argv)
{
    std::string root;
    std::string html;
    report::TextOptions options;
    options.bar_width = DEFAULT_WIDTH;
    bool json = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::cout << USAGE;
            return 0;
        }
        if (arg == "--raw" || arg == "--summary" || arg == "--json") {
            (arg == "--raw" ? options.raw : arg == "--summary" ? options.summary_only : json) = true;
            continue;
        }
        std::string name = arg;
        std::string value;
        bool has_value = false;
        size_t eq = arg.find('=');
        if (arg.compare(0, 2, "--") == 0 && eq != std::string::npos) {
            name = arg.substr(0, eq);
            value = arg.substr(eq + 1);
            has_value = true;
        }
        if (name != "--root" && name != "--html" && name != "--width")
            return usage_error("unknown argument \"" + arg + "\"");
        if (!has_value) {
            if (i + 1 >= argc)
                return usage_error(name + " needs a value");
            value = argv[++i];
        }
        if (name == "--root") {
            if (value.empty())
                return usage_error("--root needs a directory");
            root = value;
            while (root.size() > 1 && root.back() == '/')
                root.pop_back();
            if (root == "/")
                root.clear();
        } else if (name == "--html") {
            if (value.empty())
                return usage_error("--html needs a file name");
            html = value;
        } else if (!parse_width(value, &options.bar_width)) {
            return usage_error("--width takes a number from 0 to 500, not \"" + value + "\"");
        }
    }

    if (json && options.summary_only)
        return usage_error("--summary and --json do not go together");

    report::Report r = report::read_report(root);
    if (json)
        report::write_json_report(std::cout, r);
    else
        report::write_text_report(std::cout, r, options);
    std::cout.flush();

    if (!html.empty()) {
        std::ostringstream page;
        report::write_html_report(page, r, options.raw);
        std::ofstream file(html, std::ios::binary | std::ios::trunc);
        if (file)
            file << page.str();
        file.close();
        if (!file) {
            std::cerr << "ruvo-report: " << html << ": cannot be written\n";
            return 2;
        }
    }

    if (!r.usage_read) {
        std::cerr << "ruvo-report: no usage file could be read" << (root.empty() ? "" : " under " + root) << '\n';
        return 1;
    }
    return 0;
}
