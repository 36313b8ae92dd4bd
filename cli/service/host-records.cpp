#include "cli/service/host-records.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <set>

#include "host/fabric/umad/sa-client.h"
#include "host/stack/gsi-service.h"
#include "host/world/sa-questions.h"
#include "host/world/text.h"
#include "records/host-record.h"

namespace cli
{

namespace
{

using records::host_record;

constexpr int most_records = 8; // records of one GID, which differ in their P_Keys
// host_records::remove_all() gives up after this number of tries that delete no record. One such try may be harmless:
// if the answer to a Delete is lost, sa_questions repeats the Delete, and the SA then answers that it has no such
// record.
constexpr int most_tries_in_vain = 2;
constexpr uint64_t id_component = uint64_t{1} << SR_COMPONENT_SERVICE_ID;
constexpr uint64_t gid_component = uint64_t{1} << SR_COMPONENT_SERVICE_GID;
constexpr uint64_t p_key_component = uint64_t{1} << SR_COMPONENT_SERVICE_P_KEY;
constexpr uint64_t address_components = uint64_t{0xF} << (SR_COMPONENT_SERVICE_DATA8 + records::address_offset);

// The GIDs and P_Keys under which the SA may have a record of the host.
struct own_identity {
    std::set<fabric::gid_bytes> gids;
    std::set<uint16_t> p_keys;
    bool has_registered = false; // true: the host has sent a record since the service started
};

own_identity identity_of(world::host& host)
{
    own_identity identity;
    kernel::machine& machine = host.machine();
    machine.enter("records", [&] {
        for (const ib_service_record_v2_t& record : machine.get<stack::gsi>().set_records()) {
            if (!records::is_host_record(record)) continue;
            identity.gids.insert(std::to_array(record.service_gid.bytes));
            identity.p_keys.insert(from_wire(record.service_pkey));
            identity.has_registered = true;
        }
    });
    for (fabric::hca* hca : machine.hcas()) {
        for (int port = 1; port <= hca->port_count(); ++port) {
            const fabric::port_attributes attributes = hca->read_port(port);
            identity.gids.insert(attributes.gids.begin(), attributes.gids.end());
            identity.p_keys.insert(attributes.p_keys.begin(), attributes.p_keys.end());
        }
    }
    identity.gids.erase(fabric::gid_bytes{});
    identity.p_keys.erase(0);
    return identity;
}

kq_gid_t gid_of(const fabric::gid_bytes& bytes)
{
    ib_service_record_v2_t record{};
    std::memcpy(record.service_gid.bytes, bytes.data(), bytes.size());
    return from_wire(record.service_gid);
}

struct sa_answer {
    uint16_t status = 0;
    host_record record;
};

// Reads and deletes records at the SA.
class host_records
{
  public:
    explicit host_records(world::sa_questions& questions) : questions_(questions) {}

    ats::result<sa_answer> get(uint64_t components, const host_record& record)
    {
        return ask(MAD_METHOD_GET, id_component | components, record);
    }

    // Deletes the record with the GID and P_Key of `record`. Returns true if the SA had it.
    ats::result<bool> remove(const host_record& record)
    {
        return ask(MAD_METHOD_DELETE, id_component | gid_component | p_key_component, record)
            .map([](const sa_answer& a) { return a.status == 0; });
    }

    // Deletes the host records of the GID. Returns a line for the administrator, which also says if a record may
    // remain. If the SA has no record, the line is "".
    ats::result<std::string> remove_all(const fabric::gid_bytes& gid, const std::set<uint16_t>& p_keys);

  private:
    ats::result<sa_answer> ask(uint8_t method, uint64_t components, const host_record& record)
    {
        const ib_service_record_v2_t encoded = records::encode(record);
        const auto answer =
            questions_.ask(umad::make_sa_request(method, SA_ATTR_SERVICE_RECORD, components, &encoded, sizeof encoded));
        if (!answer) return ats::fail(ats::error_kind::unreachable, "the SA does not answer");
        ib_service_record_v2_t answer_record;
        std::memcpy(&answer_record, answer->payload, sizeof answer_record);
        return sa_answer{from_wire(answer->hdr.u.ns.status.raw16), records::decode(answer_record)};
    }

    ats::result<int> remove_by_p_key(const kq_gid_t& gid, const std::set<uint16_t>& p_keys)
    {
        int count = 0;
        for (const uint16_t p_key : p_keys) {
            const ats::result<bool> result = remove({.gid = gid, .p_key = p_key, .host_name = {}});
            if (!result) return ats::pass_on(result);
            count += *result;
        }
        return count;
    }

    world::sa_questions& questions_;
};

ats::result<std::string> host_records::remove_all(const fabric::gid_bytes& gid_bytes, const std::set<uint16_t>& p_keys)
{
    const kq_gid_t gid = gid_of(gid_bytes);
    const std::string subject = "of " + records::gid_text(gid) + " that the host has left at the SA";
    bool had_record = false;
    for (int tries_in_vain = 0, i = 0; i < most_records && tries_in_vain < most_tries_in_vain; ++i) {
        const ats::result<sa_answer> answer = get(gid_component, {.gid = gid, .host_name = {}});
        if (!answer) return ats::pass_on(answer);
        if (answer->status == status_word(SA_STATUS_NO_RECORDS))
            return had_record ? "deleted the record " + subject : "";
        const bool has_several = answer->status == status_word(SA_STATUS_TOO_MANY_RECORDS);
        if (answer->status != 0 && !has_several)
            return "the SA does not say if there is a record " + subject + ": " + records::status_text(answer->status);
        const ats::result<int> result = has_several
                                            ? remove_by_p_key(gid, p_keys)
                                            : remove(answer->record).map([](bool is_gone) { return int{is_gone}; });
        if (!result) return ats::pass_on(result);
        had_record = true;
        if (*result == 0) ++tries_in_vain;
    }
    return "could not delete the record " + subject;
}

} // namespace

ats::result<std::vector<std::string>> delete_leftovers(world::host& host)
{
    const own_identity identity = identity_of(host);
    const auto questions = world::sa_questions::open(host.machine());
    if (!questions) {
        if (!identity.has_registered) return std::vector<std::string>();
        return ats::fail(ats::error_kind::unreachable, questions.error().text);
    }
    host_records sa(**questions);
    std::vector<std::string> lines;
    for (const fabric::gid_bytes& gid : identity.gids) {
        const ats::result<std::string> line = sa.remove_all(gid, identity.p_keys);
        if (!line) return ats::pass_on(line);
        if (!line->empty()) lines.push_back(*line);
    }
    return lines;
}

ats::result<std::string> other_holder(world::host& host, const std::string& address)
{
    const auto ip = world::parse_ipv4(address);
    if (!ip) return "";
    const auto questions = world::sa_questions::open(host.machine());
    if (!questions) return "";
    host_records sa(**questions);
    const ats::result<sa_answer> answer = sa.get(address_components, {.address = *ip, .host_name = {}});
    if (!answer) return ats::pass_on(answer);
    const std::string title = "the SA already holds ";
    if (answer->status == status_word(SA_STATUS_TOO_MANY_RECORDS))
        return title + "several records of " + address + ": 'ats sa show --real --address " + address +
               "' lists them, and 'ats sa remove GID' removes a stale one";
    if (answer->status != 0) return "";
    const host_record& record = answer->record;
    for (const fabric::gid_bytes& own : identity_of(host).gids)
        if (gid_of(own) == record.gid) return "";
    const std::string gid = records::gid_text(record.gid);
    return title + "a record of " + address + " under another GID, " + gid + " (" + record.host_name +
           "): two hosts with one address are not found reliably. If that host is gone, 'ats sa remove " + gid +
           "' removes its record";
}

} // namespace cli
