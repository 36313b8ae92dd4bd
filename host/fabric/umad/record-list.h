// Lists the ATS records of an SA. One SubnAdmGetTable does it where long answers arrive. Where they do not, the records
// are found one by one: a SubnAdmGet says whether none, one or several records match it, and by that the addresses are
// searched octet by octet.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/fabric/umad/sa-client.h"

namespace umad
{

// Only records that are equal in all that is given.
struct record_filter {
    std::optional<uint32_t> address = {}; // network order
    std::optional<fabric::gid_bytes> gid = {};
    std::optional<std::string> host_name = {};
};

struct record_list {
    std::vector<ib_service_record_v2_t> records; // ordered by address, then GID
    std::vector<std::string> remarks;            // what may be missing, a line each
    std::string why;                             // not empty: there is no list
};

record_list list_records(sa_client& sa, const record_filter& filter);

} // namespace umad
