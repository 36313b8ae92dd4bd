// Host names, asked of the SA's records. Nothing caches them, and no module asks by them.

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

// A SubnAdmGet of the record with that host name, by the components that hold it and those of every ATS record.
fabric::mad_bytes request_for(const std::string& host_name)
{
    const ib_service_record_v2_t like = records::encode({.host_name = host_name});
    uint64_t mask = uint64_t{1} << SR_COMPONENT_SERVICE_ID | uint64_t{1} << SR_COMPONENT_SERVICE_NAME;
    for (int i = SR_COMPONENT_SERVICE_DATA32; i < SR_COMPONENT_COUNT; ++i) mask |= uint64_t{1} << i;
    return std::bit_cast<fabric::mad_bytes>(
        umad::make_sa_request(MAD_METHOD_GET, SA_ATTR_SERVICE_RECORD, mask, &like, sizeof like));
}

// The records of that name. One record comes with the SA's answer; the embedded SA has no answer that holds several.
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

json answer_resolve_name(running_hosts& hosts, const json& request)
{
    const std::string host_name = request.at("name");
    if (hosts.is_real()) return {{"real", true}};
    const auto started = std::chrono::steady_clock::now();
    json answer = ask_sa_for(hosts.subnet(), host_name);
    answer["microseconds"] =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - started).count();
    return answer;
}

} // namespace cli
