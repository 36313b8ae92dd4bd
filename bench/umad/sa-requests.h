// Makes requests of many hosts to the SA, for measurements. The GID, the address and the name of host number N result
// from N. The hosts and their ports need not exist.
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

inline constexpr std::array all_kinds = {request_kind::set, request_kind::remove, request_kind::get_by_address,
                                         request_kind::get_by_gid, request_kind::get_path};

std::string name_of(request_kind kind);
std::optional<request_kind> kind_named(const std::string& name);

// Returns the request of this kind for host `number`. A request for a path asks for the path from `source` to
// `destination`. The TransactionID is 0.
//
// A Set selects all components except the P_Key. With a P_Key, OpenSM refuses a Set if no port has the GID. Without a
// P_Key, OpenSM handles the Set like that of a real port, and stores the record.
sa_mad_v2_t make_request(request_kind kind, uint32_t number, const kq_gid_t& source, const kq_gid_t& destination);

} // namespace sa_load
