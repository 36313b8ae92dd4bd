// Lists the records of this service at the SA of a real fabric. One SubnAdmGetTable does it where long answers arrive.
// Where they do not, the records are found one by one: the answer to a SubnAdmGet shows whether none, one or several
// records match it. So the addresses are searched octet by octet.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/fabric/umad/sa-client.h"
#include "host/result.h"

namespace console
{

// Selects the records that are equal in every field given.
struct record_filter {
    std::optional<uint32_t> address = {}; // network order
    std::optional<fabric::gid_bytes> gid = {};
    std::optional<std::string> host_name = {};
};

struct record_list {
    std::vector<ib_service_record_v2_t> records; // ordered by address, then GID
    std::vector<std::string> remarks;            // what may be missing, a line each
};

// Asks through the client's port; takes some seconds where the addresses must be searched. Error: unreachable, if the
// SA does not answer; failed, if it refuses or the port cannot be used.
ats::result<record_list> list_records(umad::sa_client& sa, const record_filter& filter);

} // namespace console
