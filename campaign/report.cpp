#include "campaign/report.h"

#include <sstream>

namespace campaign
{

std::vector<hca_report> read_report(const std::string& text)
{
    std::vector<hca_report> hcas;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        // What follows `label`, or nothing when the line does not begin with it.
        const auto behind = [&](const std::string& label) {
            return line.starts_with(label) ? line.substr(label.size()) : std::string();
        };
        if (const size_t end = line.find(": ATS Ports Info"); end != std::string::npos) {
            hcas.emplace_back().name = line.substr(0, end);
            continue;
        }
        if (hcas.empty()) continue;
        std::vector<port_report>& ports = hcas.back().ports;
        if (const std::string number = behind("The Active Port Is Port Number "); !number.empty())
            hcas.back().active_port = std::stoi(number);
        if (line.starts_with("Port") && line.ends_with(" Info:")) ports.emplace_back();
        if (const std::string state = behind("Port State "); !state.empty())
            ports.back().state = state == "Active" ? port_state::active
                                 : state == "UP"   ? port_state::up
                                                   : port_state::down;
        if (const std::string gid = behind("Port service gid  : "); !gid.empty()) ports.back().gid = gid;
        if (const std::string ip = behind("Port IP Address "); !ip.empty())
            ports.back().ipv4 = ip.substr(0, ip.find(' '));
    }
    return hcas;
}

std::string contradiction_in(const hca_report& report)
{
    int active = 0;
    for (size_t i = 0; i < report.ports.size(); ++i) {
        if (report.ports[i].state != port_state::active) continue;
        if (active != 0) return report.name + " has two active ports";
        active = static_cast<int>(i + 1);
    }
    return active == report.active_port ? "" : report.name + "'s active port is not the one that is in that state";
}

} // namespace campaign
