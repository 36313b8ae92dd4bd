// Lists the records of this service at the SA of a real fabric. One SubnAdmGetTable is enough if answers of several
// segments arrive whole. Otherwise the records are searched with SubnAdmGets. Their answers show if none, one or
// several records match, so the addresses can be searched octet by octet.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/fabric/umad/sa-client.h"
#include "host/result.h"

namespace console
{

// Selects the records that are equal in every field with a value.
struct record_filter {
    std::optional<uint32_t> address = {}; // network order
    std::optional<fabric::gid_bytes> gid = {};
    std::optional<std::string> host_name = {};
};

struct record_list {
    std::vector<ib_service_record_v2_t> records; // ordered by address, then GID
    std::vector<std::string> remarks;            // one line for each kind of record that may be missing
};

// Asks through the client's port. Takes some seconds if it must search the addresses. Fails with unreachable if the SA
// does not answer, and with failed if it refuses or the port cannot be used.
ats::result<record_list> list_records(umad::sa_client& sa, const record_filter& filter);

} // namespace console
