#include "console/record-answer.h"

#include <cstdio>

#include "host/fabric/embedded/service-records.h"

namespace console
{

nlohmann::json record_answer(const embedded::service_record_view& record)
{
    char p_key[sizeof "0x0000"];
    std::snprintf(p_key, sizeof p_key, "0x%04X", record.p_key);
    const bool is_endless = record.lease_seconds == embedded::infinite_lease;
    return {{"gid", record.gid},
            {"p_key", p_key},
            {"address", record.ipv4},
            {"host_name", record.host_name},
            {"lease", is_endless ? "infinite" : std::to_string(record.lease_seconds) + " s"}};
}

} // namespace console
