#include "console/record-list.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <set>
#include <tuple>

#include "records/host-record.h"

namespace console
{

namespace
{

constexpr size_t address_octets = 4;

constexpr uint64_t component(int bit)
{
    return uint64_t{1} << bit;
}

} // namespace

uint64_t host_name_components(const std::string& host_name)
{
    constexpr ib_service_record_v2_t record{};
    const bool needs_last = host_name.size() >= sizeof record.service_data32 + sizeof record.service_data64[0];
    const int end = needs_last ? SR_COMPONENT_COUNT : SR_COMPONENT_COUNT - 1;
    uint64_t mask = 0;
    for (int i = SR_COMPONENT_SERVICE_DATA32; i < end; ++i) mask |= component(i);
    return mask;
}

namespace
{

// Selects records at the SA. A record is selected if it equals `example` in all components of `component_mask`. Every
// `component_mask` contains the ServiceID and the ServiceName, so only records of this service are selected.
struct record_selection {
    uint64_t component_mask = component(SR_COMPONENT_SERVICE_ID) | component(SR_COMPONENT_SERVICE_NAME);
    ib_service_record_v2_t example = records::encode({});

    void set_octet(size_t i, uint8_t octet)
    {
        const size_t place = records::address_offset + i;
        example.service_data8[place] = octet;
        component_mask |= component(SR_COMPONENT_SERVICE_DATA8 + static_cast<int>(place));
    }
    void set_gid(const fabric::gid_bytes& gid)
    {
        std::copy(gid.begin(), gid.end(), example.service_gid.bytes);
        component_mask |= component(SR_COMPONENT_SERVICE_GID);
    }
    void set_host_name(const std::string& name)
    {
        const ib_service_record_v2_t record = records::encode({.host_name = name});
        std::memcpy(example.service_data32, record.service_data32, sizeof example.service_data32);
        std::memcpy(example.service_data64, record.service_data64, sizeof example.service_data64);
        component_mask |= host_name_components(name);
    }
    sa_mad_v2_t request(uint8_t method) const
    {
        return umad::make_sa_request(method, SA_ATTR_SERVICE_RECORD, component_mask, &example, sizeof example);
    }
};

record_selection selection_of(const record_filter& filter)
{
    record_selection selection;
    if (filter.gid) selection.set_gid(*filter.gid);
    if (filter.host_name) selection.set_host_name(*filter.host_name);
    if (filter.address) {
        const auto* octets = reinterpret_cast<const uint8_t*>(&*filter.address);
        for (size_t i = 0; i < address_octets; ++i) selection.set_octet(i, octets[i]);
    }
    return selection;
}

std::string address_text(const record_selection& selection)
{
    const uint32_t address = records::decode(selection.example).address;
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address, text, sizeof text);
}

class address_search
{
  public:
    explicit address_search(umad::sa_client& sa) : sa_(sa) {}

    // Finds the records that `start` selects. `start` has the first `known_octets` octets of the address. The search
    // adds one octet after the other until a selection matches only one record. Several records with the same whole
    // address are searched by their GIDs.
    ats::result<record_list> run(const record_selection& start, size_t known_octets);

  private:
    ats::result<> sort_answers(const std::vector<record_selection>& selections,
                               std::vector<record_selection>& ambiguous);
    ats::result<> search_by_gid(const record_selection& ambiguous);
    ats::result<> learn_gids();

    umad::sa_client& sa_;
    record_list list_;
    bool has_unanswered_request_ = false;
    std::optional<std::vector<fabric::gid_bytes>> gids_; // of the ports of the fabric; set by learn_gids()
};

// Sends a SubnAdmGet for each selection. Adds a record to the list if it is the only match. Adds the selection to
// `ambiguous` if several records match it. Sets has_unanswered_request_ if a request has no answer or was refused.
ats::result<> address_search::sort_answers(const std::vector<record_selection>& selections,
                                           std::vector<record_selection>& ambiguous)
{
    std::vector<sa_mad_v2_t> requests;
    for (const record_selection& each : selections) requests.push_back(each.request(MAD_METHOD_GET));
    const auto answers = sa_.ask(requests);
    if (!answers) return ats::pass_on(answers);
    for (size_t i = 0; i < selections.size(); ++i) {
        const std::optional<sa_mad_v2_t>& answer = (*answers)[i];
        const uint16_t status = answer ? from_wire(answer->hdr.u.ns.status.raw16) : 0;
        if (answer && status == status_word(SA_STATUS_TOO_MANY_RECORDS))
            ambiguous.push_back(selections[i]);
        else if (answer && status == 0)
            std::memcpy(&list_.records.emplace_back(), answer->payload, sizeof(ib_service_record_v2_t));
        else if (!answer || status != status_word(SA_STATUS_NO_RECORDS))
            has_unanswered_request_ = true;
    }
    return {};
}

ats::result<record_list> address_search::run(const record_selection& start, size_t known_octets)
{
    std::vector<record_selection> ambiguous = {start};
    for (size_t octet = known_octets; octet < address_octets; ++octet) {
        std::vector<record_selection> selections;
        for (const record_selection& prefix : ambiguous) {
            for (int value = 0; value <= UINT8_MAX; ++value) {
                selections.push_back(prefix);
                selections.back().set_octet(octet, static_cast<uint8_t>(value));
            }
        }
        ambiguous.clear();
        if (const auto sorted = sort_answers(selections, ambiguous); !sorted) return ats::pass_on(sorted);
    }
    for (const record_selection& each : ambiguous)
        if (const auto searched = search_by_gid(each); !searched) return ats::pass_on(searched);
    if (has_unanswered_request_) list_.remarks.emplace_back("some requests were not answered: records may be missing");
    return std::move(list_);
}

// Finds the records that `ambiguous` selects. All of them have the same address. Asks for the record of each GID of the
// fabric. The GID of a port that has left the fabric is unknown, so the record of such a port is found only in the
// first segment of the SA's table.
ats::result<> address_search::search_by_gid(const record_selection& ambiguous)
{
    const auto table = sa_.ask_table(ambiguous.request(MAD_METHOD_GET_TABLE));
    if (table)
        list_.records.insert(list_.records.end(), table->records.begin(), table->records.end());
    else if (table.error().kind != ats::error_kind::unreachable)
        return ats::pass_on(table);
    if (!gids_)
        if (const auto learned = learn_gids(); !learned) return learned;
    std::vector<record_selection> selections;
    for (const fabric::gid_bytes& gid : *gids_) {
        selections.push_back(ambiguous);
        selections.back().set_gid(gid);
    }
    std::vector<record_selection> equal_in_gid;
    const auto sorted = sort_answers(selections, equal_in_gid);
    list_.remarks.push_back("several records hold " + address_text(ambiguous) +
                            ": those of ports that have left the fabric may be missing");
    if (!equal_in_gid.empty())
        list_.remarks.push_back("several records hold " + address_text(ambiguous) +
                                " and the same GID: they may be missing");
    return sorted;
}

// Learns the GIDs of the ports from their NodeRecords (IBA 15.2.5.2). Asks for the records of consecutive LIDs, in
// batches. Stops after the first batch without a record.
ats::result<> address_search::learn_gids()
{
    constexpr uint16_t last_unicast_lid = 0xBFFF, batch_size = 256;
    constexpr uint64_t lid_component = 1;
    constexpr size_t port_guid_offset = 24, port_guid_size = 8;
    std::set<fabric::gid_bytes> gids;
    bool has_records = true;
    for (unsigned first = 1; has_records && first <= last_unicast_lid; first += batch_size) {
        std::vector<sa_mad_v2_t> requests;
        for (unsigned lid = first; lid < first + batch_size && lid <= last_unicast_lid; ++lid) {
            const be16_t wire_lid = to_wire(static_cast<uint16_t>(lid));
            requests.push_back(
                umad::make_sa_request(MAD_METHOD_GET, SA_ATTR_NODE_RECORD, lid_component, &wire_lid, sizeof wire_lid));
        }
        has_records = false;
        const auto answers = sa_.ask(requests);
        if (!answers) return ats::pass_on(answers);
        for (const std::optional<sa_mad_v2_t>& answer : *answers) {
            if (!answer || from_wire(answer->hdr.u.ns.status.raw16) != 0) continue;
            has_records = true;
            fabric::gid_bytes gid = sa_.gid(); // all ports of the subnet have the same prefix, the first eight bytes
            std::copy_n(answer->payload + port_guid_offset, port_guid_size, gid.begin() + port_guid_size);
            gids.insert(gid);
        }
    }
    gids_.emplace(gids.begin(), gids.end());
    return {};
}

// Sorts by address, GID and P_Key. Removes duplicates.
void put_in_order(std::vector<ib_service_record_v2_t>& records)
{
    const auto key = [](const ib_service_record_v2_t& record) {
        const records::host_record host = records::decode(record);
        return std::tuple(ntohl(host.address), host.gid.subnet, host.gid.eui64, host.p_key);
    };
    std::ranges::sort(records, {}, key);
    const auto has_same_key = [&](const auto& left, const auto& right) { return key(left) == key(right); };
    records.erase(std::unique(records.begin(), records.end(), has_same_key), records.end());
}

} // namespace

ats::result<record_list> list_records(umad::sa_client& sa, const record_filter& filter)
{
    const record_selection selection = selection_of(filter);
    const auto table = sa.ask_table(selection.request(MAD_METHOD_GET_TABLE));
    if (!table) return ats::pass_on(table);
    if (table->status != 0 && table->status != status_word(SA_STATUS_NO_RECORDS))
        return ats::fail("the SA refuses to list records: status " + records::status_text(table->status));
    ats::result<record_list> list = record_list{.records = table->records, .remarks = {}};
    if (!table->is_whole) list = address_search(sa).run(selection, filter.address ? address_octets : 0);
    if (list) put_in_order(list->records);
    return list;
}

} // namespace console
