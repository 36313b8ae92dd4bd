// What the control file's report says, as numbers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace campaign
{

enum class port_state { down, up, active };

struct port_report {
    port_state state = port_state::down;
    std::string gid;  // "0x" and 32 digits
    std::string ipv4; // dotted
};

struct hca_report {
    std::string name;
    int active_port = 0; // 0: none
    std::vector<port_report> ports;
};

std::vector<hca_report> read_report(const std::string& text);

// What contradicts itself in it: more than one active port, or another one than is said to be; or nothing.
std::string contradiction_in(const hca_report& report);

} // namespace campaign
