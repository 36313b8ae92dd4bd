// Finds records by their host name. Asks the SA of an embedded fabric, because the modules cannot look up host names.
// On a real fabric, the client asks the SA itself.

#include <bit>
#include <chrono>

#include "cli/service/requests.h"
#include "console/record-answer.h"
#include "host/fabric/umad/sa-client.h"
#include "records/host-record.h"

namespace cli
{

namespace
{

// Makes a SubnAdmGet for the record with that host name. Also selects by ServiceID and ServiceName, which are the same
// in the records of all hosts.
fabric::mad_bytes request_for(const std::string& host_name)
{
    const ib_service_record_v2_t record = records::encode({.host_name = host_name});
    uint64_t mask = uint64_t{1} << SR_COMPONENT_SERVICE_ID | uint64_t{1} << SR_COMPONENT_SERVICE_NAME;
    for (int i = SR_COMPONENT_SERVICE_DATA32; i < SR_COMPONENT_COUNT; ++i) mask |= uint64_t{1} << i;
    return std::bit_cast<fabric::mad_bytes>(
        umad::make_sa_request(MAD_METHOD_GET, SA_ATTR_SERVICE_RECORD, mask, &record, sizeof record));
}

// Returns the records with that host name. If only one record matches, it is in `answer`. A SubnAdmGet cannot return
// several records, so this function reads several records from the subnet.
json matches_of(const embedded::subnet& subnet, const sa_mad_v2_t& answer, const std::string& host_name)
{
    json matches = json::array();
    if (from_wire(answer.hdr.u.ns.status.raw16) == 0) {
        ib_service_record_v2_t record;
        std::memcpy(&record, answer.payload, sizeof record);
        matches.push_back(console::record_answer(embedded::view_of(record)));
        return matches;
    }
    for (const embedded::service_record_view& record : subnet.service_records())
        if (record.service_id == records::service_id && record.host_name == host_name)
            matches.push_back(console::record_answer(record));
    return matches;
}

json no_match(const char* status, const char* source, const std::string& reason)
{
    return {{"status", status}, {"source", source ? json(source) : json()}, {"reason", reason}};
}

json ask_sa_for(embedded::subnet& subnet, const std::string& host_name)
{
    fabric::mad_bytes mad = request_for(host_name);
    if (!subnet.ask_sa(mad)) return no_match("timed out", nullptr, "the SA did not answer");
    const auto answer = std::bit_cast<sa_mad_v2_t>(mad);
    const uint16_t status = from_wire(answer.hdr.u.ns.status.raw16);
    if (status == status_word(SA_STATUS_NO_RECORDS))
        return no_match("not found", "SA", "the SA holds no record of that host name");
    if (status != 0 && status != status_word(SA_STATUS_TOO_MANY_RECORDS))
        return no_match("failed", nullptr, "the SA refused the question with status " + records::status_text(status));
    const json matches = matches_of(subnet, answer, host_name);
    if (matches.empty()) return no_match("not found", "SA", "the SA has just lost the records of that host name");
    return {{"status", "ok"}, {"source", "SA"}, {"matches", matches}};
}

} // namespace

ats::result<json> answer_resolve_name(running_hosts& hosts, const json& request)
{
    const std::string host_name = request.at("name");
    const ats::result<embedded::subnet*> subnet = hosts.subnet();
    if (!subnet) return json{{"real", true}};
    const auto start_time = std::chrono::steady_clock::now();
    json answer = ask_sa_for(**subnet, host_name);
    const auto duration = std::chrono::steady_clock::now() - start_time;
    answer["microseconds"] = std::chrono::duration_cast<std::chrono::microseconds>(duration).count();
    return answer;
}

} // namespace cli
