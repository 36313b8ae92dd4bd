#include "console/control-report.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace console
{

namespace
{

constexpr std::string_view heading_end = ": ATS Ports Info";

// Reads the value in `line` and stores it in `port`, the object of the port that the report named last. Ignores a line
// without a known value.
void read_port_line(const std::string& line, json& port)
{
    char word[64];
    unsigned long long first = 0;
    unsigned long long second = 0;
    int bytes[4];
    if (std::sscanf(line.c_str(), "Port State %63s", word) == 1)
        port["state"] = word;
    else if (std::sscanf(line.c_str(), "Port service gid : %63s", word) == 1)
        port["gid"] = word;
    else if (std::sscanf(line.c_str(), "Port lid 0x%llx", &first) == 1)
        port["lid"] = first;
    else if (std::sscanf(line.c_str(), "Port IP Address %d.%d.%d.%d", &bytes[0], &bytes[1], &bytes[2], &bytes[3]) == 4)
        port["address"] = line.substr(16, line.find(" (") - 16);
    else if (std::sscanf(line.c_str(), "Send Counter 0x%llX , Receive Counter 0x%llX", &first, &second) == 2)
        port.update({{"sent", first}, {"received", second}});
}

} // namespace

json parse_control_report(const std::string& text)
{
    json report = {{"hcas", json::array()}};
    json& hcas = report["hcas"];
    std::istringstream lines(text);
    int number = 0;
    int skew = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.ends_with(heading_end)) {
            const std::string name = line.substr(0, line.size() - heading_end.size());
            hcas.push_back({{"name", name}, {"active_port", nullptr}, {"ports", json::array()}});
        } else if (std::sscanf(line.c_str(), "SA verification period:%d verification skew(%%): %d", &number, &skew) ==
                   2) {
            report["verification"] = {{"period", std::max(number, 0)},
                                      {"skew", skew}}; // 0 and negative periods mean: no verification
        } else if (hcas.empty()) {
            continue;
        } else if (std::sscanf(line.c_str(), "The Active Port Is Port Number %d", &number) == 1) {
            hcas.back()["active_port"] = number;
        } else if (std::sscanf(line.c_str(), "Port%d Info:", &number) == 1) {
            hcas.back()["ports"].push_back({{"port", number}});
        } else if (!hcas.back()["ports"].empty()) {
            read_port_line(line, hcas.back()["ports"].back());
        }
    }
    return report;
}

} // namespace console
