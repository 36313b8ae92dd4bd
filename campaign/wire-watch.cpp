#include "campaign/wire-watch.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "campaign/tested-fabric.h"
#include "records/host-record.h"

namespace campaign
{

namespace
{

constexpr uint16_t first_lid = 2; // of the hosts' ports; they follow each other
constexpr uint64_t mask_of_set = UINT64_MAX, mask_by_gid = 0x43, mask_by_address = 0x7FFFC1;

bool is_zero(const void* field, size_t size)
{
    const auto* bytes = static_cast<const uint8_t*>(field);
    return std::all_of(bytes, bytes + size, [](uint8_t byte) { return byte == 0; });
}

} // namespace

void wire_watch::begin(const std::string& capture_path)
{
    if (!capture_path.empty()) {
        auto opened = std::make_unique<fabric::capture>(capture_path);
        if (const auto status = opened->status(); !status) in_.violate(status.error().text);
        capture_ = std::move(opened);
    }
    for (node& host : in_.hosts)
        for (size_t hca = 0; hca < host.hcas.size(); ++hca)
            for (int port = 1; port <= host.hcas[hca]->port_count(); ++port) {
                const fabric::port_attributes read = host.hcas[hca]->read_port(port);
                by_lid_.push_back({host.number, hca, port, read.gids[0], read.p_keys[0]});
            }
}

uint64_t wire_watch::sent_by_this_task() const
{
    const auto entry = requests_.find(exec::current_task());
    return entry == requests_.end() ? 0 : entry->second;
}

void wire_watch::crossed(uint64_t now_ticks, uint16_t source_lid, const fabric::address& destination,
                         const fabric::mad_bytes& bytes)
{
    if (capture_) capture_->crossed(now_ticks, source_lid, destination, bytes);
    ++in_.done.datagrams;
    if (source_lid < first_lid || size_t(source_lid - first_lid) >= by_lid_.size()) return; // the SA's answer
    ++requests_[exec::current_task()];
    const sender& from = by_lid_[source_lid - first_lid];
    node& host = in_.hosts[from.host];
    const auto mad = std::bit_cast<sa_mad_v2_t>(bytes);
    const std::string who = host.host.name();
    in_.note(who, "sends method " + std::to_string(mad.hdr.m.method) + " from LID " + std::to_string(source_lid));
    ib_service_record_v2_t record;
    memcpy(&record, mad.payload, sizeof record);
    std::string wrong = fault_in(from, mad, record);
    if (wrong.empty() && !host.models.empty())
        wrong = host.models[from.hca].sent(*exec::current_task(), mad.hdr.m.method,
                                           std::to_array(record.service_gid.bytes));
    if (wrong.empty()) wrong = delay_in(host, mad.hdr.m.method, now_ticks);
    if (!wrong.empty()) in_.violate(who + ": " + wrong);
}

// A registration goes on in the very tick in which its delete is answered.
std::string wire_watch::delay_in(node& host, uint8_t method, uint64_t now_ticks)
{
    uint64_t& deleted_tick = deleted_ticks_[exec::current_task()];
    if (method == MAD_METHOD_DELETE) deleted_tick = now_ticks;
    const bool is_answered_at_once = in_.network.quiet_since(now_ticks - harm_lasts_ticks) &&
                                     host.harm().quiet_since(now_ticks - harm_lasts_ticks) &&
                                     now_ticks - host.disturbed_tick > harm_lasts_ticks && !host.may_be_misread;
    if (method != MAD_METHOD_SET || !host.is_changing() || deleted_tick == 0 || !is_answered_at_once) return "";
    return deleted_tick == now_ticks ? "" : "a registration slept on after its delete was answered";
}

std::string wire_watch::fault_in(const sender& from, const sa_mad_v2_t& mad, const ib_service_record_v2_t& record) const
{
    const uint64_t mask = from_wire(mad.component_mask);
    const bool names_gid = !is_zero(&record.service_gid, sizeof record.service_gid);
    const bool names_address = !is_zero(record.service_data8, sizeof record.service_data8);
    if (!in_.hosts[from.host].is_live()) return "something is sent without the module";
    if (mad.hdr.base_ver != 1 || mad.hdr.mgt_class != 3 || mad.hdr.class_ver != 2 || mad.hdr.m.r != 0)
        return "the header sent is no SA request's";
    const ib_service_record_v2_t any_host = records::encode({});
    if (!records::is_host_record(record) ||
        memcmp(record.service_name, any_host.service_name, sizeof any_host.service_name) != 0)
        return "the record sent is of another service";
    if (!is_zero(mad.payload + sizeof record, sizeof mad.payload - sizeof record)) return "there is more than a record";
    switch (mad.hdr.m.method) {
    case MAD_METHOD_SET:
        if (mask != mask_of_set || from_wire(record.service_lease) != UINT32_MAX) return "the set is not complete";
        // A port whose queries failed before is registered with what was read of it.
        if (in_.hosts[from.host].harm().ever) return "";
        if (from_wire(record.service_pkey) != from.p_key) return "the set carries another P_Key than its port's";
        if (memcmp(&record.service_gid, &from.gid, sizeof from.gid) != 0) return "the set carries another port's GID";
        return "";
    case MAD_METHOD_DELETE:
        return mask == mask_by_gid && !names_address ? "" : "the delete is not by GID";
    case MAD_METHOD_GET:
        if (mask == mask_by_gid && !names_address) return "";
        return mask == mask_by_address && !names_gid ? "" : "the get is neither by GID nor by address";
    default:
        return "an unknown method is sent";
    }
}

} // namespace campaign
