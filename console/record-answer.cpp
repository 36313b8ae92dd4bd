#include "console/record-answer.h"

#include <fmt/core.h>

#include "records/host-record.h"

namespace console
{

std::string format_word(uint16_t word)
{
    return fmt::format("0x{:04X}", word);
}

nlohmann::json record_answer(const embedded::service_record_view& record)
{
    return {{"gid", record.gid},
            {"p_key", format_word(record.p_key)},
            {"address", record.ipv4},
            {"host_name", record.host_name},
            {"lease", records::lease_text(record.lease_seconds)}};
}

table_rows record_rows(const nlohmann::json& records)
{
    return make_rows(records, {"GID", "P_KEY", "ADDRESS", "HOST NAME", "LEASE"},
                     {"gid", "p_key", "address", "host_name", "lease"});
}

} // namespace console
