#include "host/fabric/umad/port-files.h"

#include <arpa/inet.h>

#include "host/fabric/umad/libibumad.h"

namespace umad
{

std::optional<fabric::port_attributes> read_port_files(const std::string& hca, int port)
{
    umad_port_t entry;
    if (umad_get_port(hca.c_str(), port, &entry) < 0) return std::nullopt;
    fabric::port_attributes attributes{
        .state = fabric::link_state_of(entry.state),
        .lid = static_cast<uint16_t>(entry.base_lid),
        .lmc = static_cast<uint8_t>(entry.lmc),
        .sm_lid = static_cast<uint16_t>(entry.sm_lid),
        .sm_sl = static_cast<uint8_t>(entry.sm_sl),
        .capability_mask = ntohl(entry.capmask),
        .gids = {fabric::make_gid(be64toh(entry.gid_prefix), be64toh(entry.port_guid))},
        .p_keys = {},
    };
    for (unsigned i = 0; i < entry.pkeys_size; ++i) attributes.p_keys.push_back(entry.pkeys[i]);
    while (!attributes.p_keys.empty() && attributes.p_keys.back() == 0) attributes.p_keys.pop_back();
    umad_release_port(&entry);
    return attributes;
}

} // namespace umad
