// The requests of many hosts to the SA, for measurements. Host number N has a GID, an address and a name made of N. A
// host's port need not exist.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "host/fabric/umad/libibumad.h"
#include "sa-mads.h"

namespace sa_load
{

enum class request_kind : uint8_t { set, remove, get_by_address, get_by_gid, get_path };

constexpr std::array all_kinds = {request_kind::set, request_kind::remove, request_kind::get_by_address,
                                  request_kind::get_by_gid, request_kind::get_path};

std::string name_of(request_kind kind);
std::optional<request_kind> kind_named(const std::string& name);

// The request of this kind for host `number`. A path leads from `source` to `destination`. The transaction is 0.
//
// A Set selects all components except the P_Key. OpenSM refuses a Set with a P_Key for a GID without a port, and does
// the same work otherwise.
sa_mad_v2_t make_request(request_kind kind, uint32_t number, const kq_gid_t& source, const kq_gid_t& destination);

} // namespace sa_load
