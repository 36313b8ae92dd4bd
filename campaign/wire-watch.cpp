#include "campaign/wire-watch.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <fmt/format.h>

#include "campaign/tested-fabric.h"
#include "records/host-record.h"

namespace campaign
{

namespace
{

constexpr uint16_t first_lid = 2; // LID of the first port; the hosts' ports have consecutive LIDs

// Component masks of the requests that ats sends (ServiceRecord, IBA 15.2.5.14).
constexpr uint64_t mask_of_set = UINT64_MAX, mask_by_gid = 0x43, mask_by_address = 0x7FFFC1;

bool is_zero(const void* field, size_t size)
{
    const auto* bytes = static_cast<const uint8_t*>(field);
    return std::all_of(bytes, bytes + size, [](uint8_t byte) { return byte == 0; });
}

bool is_of_paths(const sa_mad_v2_t& mad)
{
    return from_wire(std::bit_cast<be16_t>(mad.hdr.attrib_id)) == SA_ATTR_PATH_RECORD;
}

std::string header_text(const mad_hdr_t& header)
{
    return fmt::format("base version {}, class 0x{:02X}, class version {}, {} 0x{:02X}", int(header.base_ver),
                       int(header.mgt_class), int(header.class_ver), header.m.r ? "response to method" : "method",
                       int(header.m.method));
}

// Returns what header_text() returns for a correct SA request. `method` is the text about the method.
std::string request_header(const char* method)
{
    return fmt::format("base version {}, class 0x{:02X}, class version {}, {}", MAD_BASE_VERSION, MAD_CLASS_SUBN_ADM,
                       MAD_CLASS_VERSION_SUBN_ADM, method);
}

std::string text_of_gid(const wire_gid_t& gid)
{
    return embedded::text_of(std::to_array(gid.bytes));
}

std::string p_key_text(uint16_t p_key)
{
    return fmt::format("P_Key 0x{:04X}", p_key);
}

// Returns a text of the component mask, GID and address by which a Get or a Delete selects records.
std::string selection_text(uint64_t mask, const ib_service_record_v2_t& record)
{
    return fmt::format("component mask 0x{:X}, {}, address {}", mask, text_of_gid(record.service_gid),
                       embedded::view_of(record).ipv4);
}

std::string by_gid_text()
{
    return fmt::format("component mask 0x{:X}, a GID and no address", mask_by_gid);
}

} // namespace

void wire_watch::begin(const std::string& capture_path)
{
    if (!capture_path.empty()) {
        capture_ = std::make_unique<fabric::capture>(capture_path);
        if (const ats::result<> status = capture_->status(); !status) fabric_.violate(status.error().text);
    }
    for (node& node : fabric_.nodes)
        for (size_t hca = 0; hca < node.hcas.size(); ++hca)
            for (int port = 1; port <= node.hcas[hca]->port_count(); ++port) {
                const fabric::port_attributes attributes = node.hcas[hca]->read_port(port);
                ports_by_lid_.push_back({node.number, hca, port, attributes.gids[0], attributes.p_keys[0]});
            }
}

uint64_t wire_watch::requests_of_this_task() const
{
    const auto entry = requests_.find(exec::current_task());
    return entry == requests_.end() ? 0 : entry->second;
}

void wire_watch::crossed(uint64_t now_ticks, uint16_t source_lid, const fabric::address& destination,
                         const fabric::mad_bytes& bytes)
{
    if (capture_) capture_->crossed(now_ticks, source_lid, destination, bytes);
    ++fabric_.counts.datagrams;
    const bool is_from_host = source_lid >= first_lid && size_t(source_lid - first_lid) < ports_by_lid_.size();
    if (!is_from_host) return; // it is an answer of the SA
    ++requests_[exec::current_task()];
    const port_entry& sender = ports_by_lid_[source_lid - first_lid];
    node& node = fabric_.nodes[sender.node];
    const auto mad = std::bit_cast<sa_mad_v2_t>(bytes);
    const uint8_t method = mad.hdr.m.method;
    const std::string host_name = node.host.name();
    fabric_.note(host_name, "sends method " + std::to_string(method) + " from LID " + std::to_string(source_lid));
    if (fabric_.plan.drawn_options.asks_for_paths && is_of_paths(mad)) {
        if (const found_fault fault = fault_in_path_request(sender, mad); !fault.text.empty()) report(node, fault);
        return;
    }
    ib_service_record_v2_t record;
    memcpy(&record, mad.payload, sizeof record);
    found_fault fault = fault_in(sender, mad, record);
    if (fault.text.empty() && !node.models.empty())
        fault = node.models[sender.hca].check_request(*exec::current_task(), method,
                                                      std::to_array(record.service_gid.bytes));
    if (fault.text.empty()) fault = timing_fault_in(node, sender.hca, method, now_ticks);
    if (!fault.text.empty()) report(node, fault);
}

// violate() reads the fabric to complete the recording. The fabric holds its lock while it calls crossed(), so a new
// task calls violate().
void wire_watch::report(node& node, const found_fault& fault)
{
    const std::string text = node.host.name() + ": " + fault.text;
    node.start("violation", [this, text, mismatch = fault.mismatch] { fabric_.violate(text, mismatch); });
}

found_fault wire_watch::fault_in_path_request(const port_entry& sender, const sa_mad_v2_t& mad) const
{
    constexpr uint64_t mask_of_path = 0x380C;
    constexpr uint8_t reversible_one_path = 0x81;
    ib_path_record_wire_t path;
    memcpy(&path, mad.payload, sizeof path);
    if (mad.hdr.base_ver != 1 || mad.hdr.mgt_class != 3 || mad.hdr.class_ver != 2 || mad.hdr.m.r != 0 ||
        mad.hdr.m.method != MAD_METHOD_GET)
        return {"a MAD's header is not that of a path request", {request_header("a Get (0x01)"), header_text(mad.hdr)}};
    const uint64_t mask = from_wire(mad.component_mask);
    if (mask != mask_of_path || path.reversible_numb_path != reversible_one_path)
        return {"a path request asks for something else",
                {fmt::format("component mask 0x{:X}, one reversible path (0x{:X})", mask_of_path, reversible_one_path),
                 fmt::format("component mask 0x{:X}, paths 0x{:X}", mask, path.reversible_numb_path)}};
    if (sender.hca != 0 || memcmp(&path.sgid, &sender.gid, sizeof sender.gid) != 0 ||
        from_wire(path.p_key) != sender.p_key)
        return {"a path request does not begin at the port that sends it",
                {fmt::format("from {}, {}, at the first HCA", embedded::text_of(sender.gid), p_key_text(sender.p_key)),
                 fmt::format("from {}, {}, at HCA {}", text_of_gid(path.sgid), p_key_text(from_wire(path.p_key)),
                             sender.hca)}};
    return {};
}

// Without disturbances, the answer to a Delete comes in the same tick. Then the Set must follow in this tick, too.
found_fault wire_watch::timing_fault_in(node& node, size_t hca, uint8_t method, uint64_t now_ticks)
{
    uint64_t& delete_tick = delete_ticks_[exec::current_task()];
    if (method == MAD_METHOD_DELETE) delete_tick = now_ticks;
    const bool is_answered_at_once = fabric_.network.was_quiet_since(now_ticks - harm_lasts_ticks) &&
                                     node.harm().was_quiet_since(now_ticks - harm_lasts_ticks) &&
                                     now_ticks - node.disturbed_tick > harm_lasts_ticks && !node.may_know_wrong_ports &&
                                     !node.is_cut_off(hca);
    if (method != MAD_METHOD_SET || !node.is_changing() || delete_tick == 0 || !is_answered_at_once) return {};
    if (delete_tick == now_ticks) return {};
    return {"a registration continued to wait after the answer to its Delete",
            {fmt::format("a Set at tick {}, in which the Delete was answered", delete_tick),
             fmt::format("at tick {}", now_ticks)}};
}

found_fault wire_watch::fault_in(const port_entry& sender, const sa_mad_v2_t& mad,
                                 const ib_service_record_v2_t& record) const
{
    const uint64_t mask = from_wire(mad.component_mask);
    const bool has_gid = !is_zero(&record.service_gid, sizeof record.service_gid);
    const bool has_address = !is_zero(record.service_data8, sizeof record.service_data8);
    if (!fabric_.nodes[sender.node].is_live())
        return {"a host sends a request while its module is not loaded", {"no request", header_text(mad.hdr)}};
    if (mad.hdr.base_ver != 1 || mad.hdr.mgt_class != 3 || mad.hdr.class_ver != 2 || mad.hdr.m.r != 0)
        return {"a MAD's header is not that of an SA request", {request_header("a request"), header_text(mad.hdr)}};
    const ib_service_record_v2_t any_host = records::encode({});
    if (!records::is_host_record(record) ||
        memcmp(record.service_name, any_host.service_name, sizeof any_host.service_name) != 0)
        return {
            "a request carries the record of another service",
            {fmt::format("service 0x{:X}, \"{}\"", records::service_id, records::service_name),
             fmt::format("service 0x{:X}, \"{}\"", from_wire(record.service_id),
                         std::string(record.service_name, strnlen(record.service_name, sizeof record.service_name)))}};
    if (!is_zero(mad.payload + sizeof record, sizeof mad.payload - sizeof record))
        return {"a request has bytes after its record", {"only zeros after the record", "other bytes"}};
    switch (mad.hdr.m.method) {
    case MAD_METHOD_SET:
        return fault_in_set(sender, mad, record);
    case MAD_METHOD_DELETE:
        if (mask == mask_by_gid && !has_address) return {};
        return {"a Delete is not by GID", {by_gid_text(), selection_text(mask, record)}};
    case MAD_METHOD_GET:
        if ((mask == mask_by_gid && !has_address) || (mask == mask_by_address && !has_gid)) return {};
        return {"a Get is neither by GID nor by address",
                {by_gid_text() + fmt::format("; or component mask 0x{:X}, an address and no GID", mask_by_address),
                 selection_text(mask, record)}};
    default:
        return {"a request has an unknown method", {"a Get, a Set or a Delete", header_text(mad.hdr)}};
    }
}

found_fault wire_watch::fault_in_set(const port_entry& sender, const sa_mad_v2_t& mad,
                                     const ib_service_record_v2_t& record) const
{
    const auto completeness = [](uint64_t mask, uint32_t lease) {
        return fmt::format("component mask 0x{:X}, lease {}", mask, records::lease_text(lease));
    };
    const uint64_t mask = from_wire(mad.component_mask);
    const uint32_t lease = from_wire(record.service_lease);
    if (mask != mask_of_set || lease != records::infinite_lease)
        return {"a Set is not complete",
                {completeness(mask_of_set, records::infinite_lease), completeness(mask, lease)}};
    // If a query of a port fails, the service registers the port with the values that it has read so far.
    if (fabric_.nodes[sender.node].harm().has_done_harm) return {};
    if (const uint16_t p_key = from_wire(record.service_pkey); p_key != sender.p_key)
        return {"the P_Key in a Set is not that of its port", {p_key_text(sender.p_key), p_key_text(p_key)}};
    if (memcmp(&record.service_gid, &sender.gid, sizeof sender.gid) != 0)
        return {"the GID in a Set is not that of its port",
                {embedded::text_of(sender.gid), text_of_gid(record.service_gid)}};
    return {};
}

} // namespace campaign
