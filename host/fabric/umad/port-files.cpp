#include "host/fabric/umad/port-files.h"

#include <arpa/inet.h>

#include "host/fabric/umad/libibumad.h"

namespace umad
{

std::optional<fabric::port_attributes> attributes_in_files(const std::string& hca, int port)
{
    umad_port_t told;
    if (umad_get_port(hca.c_str(), port, &told) < 0) return std::nullopt;
    fabric::port_attributes attributes{
        .state = fabric::link_state_of(told.state),
        .lid = static_cast<uint16_t>(told.base_lid),
        .lmc = static_cast<uint8_t>(told.lmc),
        .sm_lid = static_cast<uint16_t>(told.sm_lid),
        .sm_sl = static_cast<uint8_t>(told.sm_sl),
        .capability_mask = ntohl(told.capmask),
        .gids = {fabric::make_gid(be64toh(told.gid_prefix), be64toh(told.port_guid))},
        .p_keys = {},
    };
    for (unsigned i = 0; i < told.pkeys_size; ++i) attributes.p_keys.push_back(told.pkeys[i]);
    while (!attributes.p_keys.empty() && attributes.p_keys.back() == 0) attributes.p_keys.pop_back();
    umad_release_port(&told);
    return attributes;
}

} // namespace umad
