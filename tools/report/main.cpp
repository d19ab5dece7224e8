// ruvo-report: prints the usage that the ruvo daemon has recorded on a router.
//
// Exit status: 0 when at least one usage file (a link's, a router total or a client file)
// could be read; 1 when none could (the configuration, the WAN count and the suspension
// markers alone do not count); 2 for a wrong command line or an HTML file that cannot be
// written.
#include "tools/report/report_html.h"
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
    "usage: ruvo-report [--root DIR] [--html FILE] [--width N]\n"
    "\n"
    "Prints the usage that ruvo has recorded: per WAN link and SIM card the hourly, daily,\n"
    "monthly and billing-cycle tables, the allowances, the router totals and the top\n"
    "clients by IP address and by MAC address.\n"
    "\n"
    "  --root DIR    read the router's files under DIR instead of /\n"
    "  --html FILE   also write the report as a self-contained HTML page with bar charts\n"
    "  --width N     width of the text bars in characters, 0 to 500 (default 40; 0: none)\n"
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
    int width = DEFAULT_WIDTH;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::cout << USAGE;
            return 0;
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
        } else if (!parse_width(value, &width)) {
            return usage_error("--width takes a number from 0 to 500, not \"" + value + "\"");
        }
    }

    report::Report r = report::read_report(root);
    report::write_text_report(std::cout, r, width);
    std::cout.flush();

    if (!html.empty()) {
        std::ostringstream page;
        report::write_html_report(page, r);
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
