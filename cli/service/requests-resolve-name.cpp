// Finds records by their host name. The service asks the SA itself, because the modules cannot look up host names.

#include <bit>
#include <chrono>
#include <optional>

#include "cli/service/requests.h"
#include "console/record-answer.h"
#include "console/record-list.h"
#include "host/fabric/umad/sa-client.h"
#include "records/host-record.h"

namespace cli
{

namespace
{

using possible_answer = std::optional<sa_mad_v2_t>; // empty if the SA does not answer

// Makes a SubnAdmGet for the record with that host name. Also selects by ServiceID and ServiceName, which are the same
// in the records of all hosts.
sa_mad_v2_t request_for(const std::string& host_name)
{
    const ib_service_record_v2_t record = records::encode({.host_name = host_name});
    const uint64_t mask = uint64_t{1} << SR_COMPONENT_SERVICE_ID | uint64_t{1} << SR_COMPONENT_SERVICE_NAME |
                          console::host_name_components(host_name);
    return umad::make_sa_request(MAD_METHOD_GET, SA_ATTR_SERVICE_RECORD, mask, &record, sizeof record);
}

// Asks the SA of a real fabric through a port of the host, and the SA of an embedded fabric without any port. Fails if
// the SA cannot be asked.
ats::result<possible_answer> ask_sa(running_hosts& hosts, const sa_mad_v2_t& request)
{
    if (const ats::result<embedded::subnet*> subnet = hosts.subnet()) {
        auto mad = std::bit_cast<fabric::mad_bytes>(request);
        if (!(*subnet)->ask_sa(mad)) return possible_answer();
        return possible_answer(std::bit_cast<sa_mad_v2_t>(mad));
    }
    return hosts.name_questions().ask(hosts.all().front()->machine(), request);
}

// Returns all records with that host name at the SA of an embedded fabric. They are read from the subnet, because a
// SubnAdmGet cannot return several records. Returns no record of a real fabric.
json several_matches(running_hosts& hosts, const std::string& host_name)
{
    json matches = json::array();
    const ats::result<embedded::subnet*> subnet = hosts.subnet();
    if (!subnet) return matches;
    for (const embedded::service_record_view& record : (*subnet)->service_records())
        if (record.service_id == records::service_id && record.host_name == host_name)
            matches.push_back(console::record_answer(record));
    return matches;
}

json no_match(const char* status, const char* source, const std::string& reason)
{
    return {{"status", status}, {"source", source ? json(source) : json()}, {"reason", reason}};
}

json match(const json& matches)
{
    return {{"status", "ok"}, {"source", "SA"}, {"matches", matches}};
}

json look_up(running_hosts& hosts, const std::string& host_name)
{
    if (host_name.size() > records::host_name_size)
        return no_match("not found", nullptr,
                        "a host name has at most " + std::to_string(records::host_name_size) + " bytes");
    const ats::result<possible_answer> answer = ask_sa(hosts, request_for(host_name));
    if (!answer) return no_match("failed", nullptr, answer.error().text);
    if (!*answer) return no_match("timed out", nullptr, "the SA did not answer");
    const uint16_t status = from_wire((*answer)->hdr.u.ns.status.raw16);
    if (status == 0) {
        ib_service_record_v2_t record;
        std::memcpy(&record, (*answer)->payload, sizeof record);
        return match(json::array({console::record_answer(embedded::view_of(record))}));
    }
    if (status == status_word(SA_STATUS_NO_RECORDS))
        return no_match("not found", "SA", "the SA holds no record of that host name");
    if (status & MAD_STATUS_BUSY) return no_match("timed out", nullptr, "the SA says that it is busy");
    if (status != status_word(SA_STATUS_TOO_MANY_RECORDS))
        return no_match("failed", nullptr, "the SA refused the question with status " + records::status_text(status));
    const json matches = several_matches(hosts, host_name);
    if (!matches.empty()) return match(matches);
    return no_match("failed", "SA",
                    "the SA holds several records of that host name, and returns none of them: 'ats sa show --name " +
                        host_name + "' lists them");
}

} // namespace

json answer_resolve_name(running_hosts& hosts, const std::string& host_name)
{
    const auto start_time = std::chrono::steady_clock::now();
    json answer = look_up(hosts, host_name);
    const auto duration = std::chrono::steady_clock::now() - start_time;
    answer["microseconds"] = std::chrono::duration_cast<std::chrono::microseconds>(duration).count();
    return answer;
}

} // namespace cli
