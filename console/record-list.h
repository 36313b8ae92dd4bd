// Lists the records of this service at the SA of a real fabric. list_records() first sends a SubnAdmGetTable. Under
// ibsim, only the first segment of a long answer arrives. Then list_records() searches the records with SubnAdmGets.
// The answer to a SubnAdmGet tells whether zero, one or several records match, so the search can go through the
// addresses octet by octet.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/fabric/umad/sa-client.h"
#include "host/result.h"

namespace console
{

// Selects the records that are equal to the filter in every field to which the filter gives a value. A filter without
// any value selects all records.
struct record_filter {
    std::optional<uint32_t> address = {}; // network order
    std::optional<fabric::gid_bytes> gid = {};
    std::optional<std::string> host_name = {};
};

struct record_list {
    std::vector<ib_service_record_v2_t> records; // sorted by address, GID and P_Key
    std::vector<std::string> remarks;            // each line tells which records may be missing, and why
};

// Returns the records that `filter` selects. Asks the SA through the port of `sa`. A search through the addresses takes
// some seconds. Fails (unreachable) if the SA does not answer. Fails (failed) if the SA refuses the request, if its
// answer is too long, or if the port cannot be used.
ats::result<record_list> list_records(umad::sa_client& sa, const record_filter& filter);

// Returns the component mask that selects records with this host name. Leaves out the last eight bytes of the name if
// they follow its final zero byte: some SAs do not keep these bytes of a record.
uint64_t host_name_components(const std::string& host_name);

} // namespace console
