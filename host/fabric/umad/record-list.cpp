#include "host/fabric/umad/record-list.h"

#include "records/host-record.h"
#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <set>
#include <utility>

namespace umad
{

namespace
{

constexpr size_t octets = 4; // of an address

constexpr uint64_t component(int bit)
{
    return uint64_t{1} << bit;
}

// What a request selects records by.
struct selection {
    uint64_t mask = component(SR_COMPONENT_SERVICE_ID) | component(SR_COMPONENT_SERVICE_NAME);
    ib_service_record_v2_t like{};

    selection()
    {
        like.service_id = to_wire(records::service_id);
        std::memcpy(like.service_name, records::service_name, sizeof records::service_name);
    }

    void set_octet(size_t i, uint8_t octet)
    {
        like.service_data8[records::address_offset + i] = octet;
        mask |= component(SR_COMPONENT_SERVICE_DATA8 + static_cast<int>(records::address_offset + i));
    }
    void set_gid(const fabric::gid_bytes& gid)
    {
        std::copy(gid.begin(), gid.end(), like.service_gid.bytes);
        mask |= component(SR_COMPONENT_SERVICE_GID);
    }
    void set_host_name(const std::string& name)
    {
        uint8_t bytes[sizeof like.service_data32 + sizeof like.service_data64] = {};
        std::memcpy(bytes, name.data(), std::min(name.size(), records::host_name_size));
        std::memcpy(like.service_data32, bytes, sizeof like.service_data32);
        std::memcpy(like.service_data64, bytes + sizeof like.service_data32, sizeof like.service_data64);
        for (int i = SR_COMPONENT_SERVICE_DATA32; i < SR_COMPONENT_COUNT; ++i) mask |= component(i);
    }
    sa_mad_v2_t request(uint8_t method) const
    {
        return make_sa_request(method, SA_ATTR_SERVICE_RECORD, mask, &like, sizeof like);
    }
};

std::string address_text(const selection& of)
{
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, of.like.service_data8 + records::address_offset, text, sizeof text);
}

class search
{
  public:
    search(sa_client& sa, record_list& list) : sa_(sa), list_(list) {}

    void by_address(const selection& start, size_t octets_given);

  private:
    void count_answers(const std::vector<selection>& asked, std::vector<selection>& several);
    void tell_apart(const selection& several);
    const std::vector<fabric::gid_bytes>& gids_on_fabric();

    sa_client& sa_;
    record_list& list_;
    bool has_missed_ = false;
    std::optional<std::vector<fabric::gid_bytes>> gids_;
};

// Asks for all of them: single records go to the list, and what several records match to `several`.
void search::count_answers(const std::vector<selection>& asked, std::vector<selection>& several)
{
    std::vector<sa_mad_v2_t> requests;
    for (const selection& each : asked) requests.push_back(each.request(MAD_METHOD_GET));
    const auto answers = sa_.ask(requests);
    for (size_t i = 0; i < asked.size(); ++i) {
        const uint16_t status = answers[i] ? from_wire(answers[i]->hdr.u.ns.status.raw16) : 0;
        if (status == status_word(SA_STATUS_TOO_MANY_RECORDS))
            several.push_back(asked[i]);
        else if (answers[i] && status == 0)
            std::memcpy(&list_.records.emplace_back(), answers[i]->payload, sizeof(ib_service_record_v2_t));
        else if (status != status_word(SA_STATUS_NO_RECORDS) && !std::exchange(has_missed_, true))
            list_.remarks.emplace_back("some requests were not answered: records may be missing");
    }
}

void search::by_address(const selection& start, size_t octets_given)
{
    std::vector<selection> level = {start};
    for (size_t octet = octets_given; octet < octets; ++octet) {
        std::vector<selection> asked;
        for (const selection& prefix : level) {
            for (int value = 0; value <= UINT8_MAX; ++value) {
                asked.push_back(prefix);
                asked.back().set_octet(octet, static_cast<uint8_t>(value));
            }
        }
        level.clear();
        count_answers(asked, level);
    }
    for (const selection& several : level) tell_apart(several);
}

// Records of one address have nothing left to be parted by but their GIDs.
void search::tell_apart(const selection& several)
{
    if (const auto table = sa_.ask_table(several.request(MAD_METHOD_GET_TABLE)))
        list_.records.insert(list_.records.end(), table->records.begin(), table->records.end());
    std::vector<selection> asked;
    for (const fabric::gid_bytes& gid : gids_on_fabric()) {
        asked.push_back(several);
        asked.back().set_gid(gid);
    }
    std::vector<selection> of_one_gid;
    count_answers(asked, of_one_gid);
    list_.remarks.push_back("several records hold " + address_text(several) +
                            ": those of ports that have left the fabric may be missing");
}

// The GIDs of all ports, from the NodeRecords (IBA 15.2.5.2) of one LID after another.
const std::vector<fabric::gid_bytes>& search::gids_on_fabric()
{
    if (gids_) return *gids_;
    constexpr uint16_t last_unicast_lid = 0xBFFF, at_a_time = 256;
    constexpr uint64_t by_lid = 1;
    constexpr size_t port_guid_at = 24;
    std::set<fabric::gid_bytes> gids;
    bool found_any = true;
    for (unsigned first = 1; found_any && first <= last_unicast_lid; first += at_a_time) {
        std::vector<sa_mad_v2_t> requests;
        for (unsigned lid = first; lid < first + at_a_time && lid <= last_unicast_lid; ++lid) {
            const be16_t wire = to_wire(static_cast<uint16_t>(lid));
            requests.push_back(make_sa_request(MAD_METHOD_GET, SA_ATTR_NODE_RECORD, by_lid, &wire, sizeof wire));
        }
        found_any = false;
        for (const auto& answer : sa_.ask(requests)) {
            if (!answer || from_wire(answer->hdr.u.ns.status.raw16) != 0) continue;
            found_any = true;
            fabric::gid_bytes gid = sa_.gid(); // its first half is the subnet's
            std::copy_n(answer->payload + port_guid_at, 8, gid.begin() + 8);
            gids.insert(gid);
        }
    }
    gids_.emplace(gids.begin(), gids.end());
    return *gids_;
}

// By address, GID and P_Key, each record once.
void put_in_order(std::vector<ib_service_record_v2_t>& records)
{
    const auto key = [](const ib_service_record_v2_t& record) {
        std::array<uint8_t, octets + sizeof record.service_gid + sizeof record.service_pkey> bytes;
        std::copy_n(record.service_data8 + records::address_offset, octets, bytes.begin());
        std::copy_n(record.service_gid.bytes, sizeof record.service_gid, bytes.begin() + octets);
        std::copy_n(record.service_pkey.bytes, sizeof record.service_pkey, bytes.end() - 2);
        return bytes;
    };
    std::ranges::sort(records, {}, key);
    const auto has_same_key = [&](const auto& left, const auto& right) { return key(left) == key(right); };
    records.erase(std::unique(records.begin(), records.end(), has_same_key), records.end());
}

} // namespace

record_list list_records(sa_client& sa, const record_filter& filter)
{
    selection wanted;
    if (filter.gid) wanted.set_gid(*filter.gid);
    if (filter.host_name) wanted.set_host_name(*filter.host_name);
    if (filter.address)
        for (size_t i = 0; i < octets; ++i) wanted.set_octet(i, reinterpret_cast<const uint8_t*>(&*filter.address)[i]);

    record_list list;
    const auto table = sa.ask_table(wanted.request(MAD_METHOD_GET_TABLE));
    if (!table) {
        list.why = "the SA at LID " + std::to_string(sa.sm_lid()) +
                   " does not answer: is its subnet manager running, and the master?";
    } else if (table->status != 0 && table->status != status_word(SA_STATUS_NO_RECORDS)) {
        char text[64];
        std::snprintf(text, sizeof text, "the SA refuses to list records (status 0x%04X)", table->status);
        list.why = text;
    } else if (table->is_whole) {
        list.records = table->records;
    } else {
        search(sa, list).by_address(wanted, filter.address ? octets : 0);
    }
    put_in_order(list.records);
    return list;
}

} // namespace umad
