#include "campaign/questions.h"

#include <map>

#include "campaign/tested-fabric.h"
#include "host/peers/ibat-exports.h"
#include "host/peers/ibat-path-exports.h"
#include "host/peers/ucm-exports.h"
#include "host/world/published.h"
#include "host/world/text.h"
#include "kernel/sync.h"

namespace campaign
{

namespace
{

// If no answer comes, the service ends its own request between shortest_wait_ticks and longest_wait_ticks later.
// Questions through IBAT or UCM may take up to longest_wait_for_peers_ticks, because IBAT repeats requests, and both
// queue their replies.
constexpr uint64_t shortest_wait_ticks = 1000, longest_wait_ticks = 2000;
constexpr uint64_t longest_wait_for_peers_ticks = 6000;

// The maximum time from a change of a link until the host has processed the event. A path request in a quiet network
// takes no longer.
constexpr uint64_t event_ticks = 100;

std::map<const kernel::machine*, watching_ucm*> watching_ucms;

std::optional<embedded::port_view> port_with(const tested_fabric& fabric, const kq_gid_t& gid)
{
    for (const embedded::port_view& port : fabric.subnet.ports())
        if (world::parse_gid(port.gid) == gid) return port;
    return std::nullopt;
}

bool is_active(const std::optional<embedded::port_view>& port)
{
    return port && port->state == fabric::link_state::active;
}

// Returns true if the host had processed its last change before this tick.
bool is_settled(tested_fabric& fabric, const std::string& host, uint64_t tick)
{
    for (const node& node : fabric.nodes)
        if (node.host.name() == host) return node.disturbed_tick + event_ticks < tick;
    return true;
}

// Compares a found path with the subnet. A cached path may be older than a change at the destination. It must not be
// older than a change at the source.
void check_found_path(const question& question, const ibat_arp_data_t& record)
{
    tested_fabric& fabric = question.asker.fabric;
    const ib_path_record_v2_t& path = record.paths[0];
    const auto source = port_with(fabric, path.sgid), destination = port_with(fabric, question.destination);
    const bool is_true = source && destination && source->host_name == question.asker.host.name() &&
                         source->hca_name == question.asker.hcas[0]->name() && path.slid == source->lid &&
                         path.dlid == destination->lid && path.dgid == question.destination &&
                         static_cast<uint32_t>(source->port) == record.local_port_num && record.paths_count == 1 &&
                         record.primary_path == &record.paths[0] && path.reversible && path.pkey == 0xFFFF;
    const std::string subject = question.asker.host.name() + ": the path to " + world::format_gid(question.destination);
    if (!is_true)
        fabric.violate(subject + " is not that of the subnet: it leads from LID " + std::to_string(path.slid) + ", " +
                       world::format_gid(path.sgid) + " at port " + std::to_string(record.local_port_num) + " to LID " +
                       std::to_string(path.dlid));
    if (source->state != fabric::link_state::active && is_settled(fabric, source->host_name, question.begin_tick))
        fabric.violate(subject + " begins at port " + std::to_string(source->port) + ", which is down");
}

// Compares the answer about a path with the real state. Does nothing if a fault may have caused a difference.
void check_path(const question& question, ibat_stat_t status, const ibat_arp_data_t& record)
{
    node& asker = question.asker;
    tested_fabric& fabric = asker.fabric;
    const uint64_t quiet_tick = question.begin_tick > harm_lasts_ticks ? question.begin_tick - harm_lasts_ticks : 0;
    const bool is_quiet = fabric.network.was_quiet_since(quiet_tick) && asker.harm().was_quiet_since(quiet_tick) &&
                          asker.disturbed_tick + event_ticks < question.begin_tick && !asker.is_cut_off();
    const bool may_be_corrupt = fabric.subnet.effects().arrived_corrupted > 0 && !(question.is_fresh && is_quiet);
    if (status == ibat_stat_ok) {
        if (may_be_corrupt) return;
        ++fabric.counts.truths;
        return check_found_path(question, record);
    }
    if (!is_quiet || status == ibat_stat_error || !asker.has_link(0)) return; // ibat_stat_error: IBAT is not loaded
    const auto destination = port_with(fabric, question.destination);
    const bool is_true_absence =
        !is_active(destination) || !is_settled(fabric, destination->host_name, question.begin_tick);
    ++fabric.counts.truths;
    if (status == ibat_stat_no_path && is_true_absence) return;
    fabric.violate(asker.host.name() + ": the path to " + world::format_gid(question.destination) +
                   " was not found, status " + std::to_string(status));
}

} // namespace

void question::take_answer(ibat_stat_t status, ibat_arp_data_t* record, void* self)
{
    question& question = *static_cast<campaign::question*>(self);
    tested_fabric& fabric = question.asker.fabric;
    const uint64_t elapsed_ticks = fabric.now() - question.begin_tick;
    const std::string subject = question.asker.host.name() + ": a question ";
    if (question.replies++ > 0) fabric.violate(subject + "was answered twice");
    if (question.is_closed) fabric.violate(subject + "was answered after it had been withdrawn");
    if (exec::current_task()->spin_locks > 0) fabric.violate(subject + "was answered under a lock");
    if (question.is_of_service && status == ibat_stat_timeout && elapsed_ticks < shortest_wait_ticks)
        fabric.violate(subject + "timed out after " + std::to_string(elapsed_ticks) + " ticks");
    if (elapsed_ticks >= (question.is_of_service ? longest_wait_ticks : longest_wait_for_peers_ticks))
        fabric.violate(subject + "was answered too late, after " + std::to_string(elapsed_ticks) + " ticks");
    if (question.is_by_path) check_path(question, status, *record);
    question.status = status;
    if (record) question.ip = record->dst_ip;
    if (record) question.gid = record->gid;
    ++fabric.counts.answers;
}

void ask_for_gid(question& question, uint32_t ip, bool bypasses_cache)
{
    kernel::machine& machine = question.asker.machine();
    ibat_arp_data_t record{};
    if (bypasses_cache) {
        if (const world::published<ibat_refresh_fn_t> refresh(machine, "ibat_refresh_fn"); refresh)
            question.return_status = (*refresh)(ip, question::take_answer, &question);
    } else if (const world::published<ibat_get_ib_data_fn_t> get(machine, "ibat_get_ib_data_fn"); get) {
        question.return_status = (*get)(ip, &record, question::take_answer, &question);
        if (question.return_status == ibat_stat_ok) question.gid = record.gid;
    }
}

void ask_for_address(question& question, const kq_gid_t& gid)
{
    node& node = question.asker;
    question.is_by_gid = true;
    if (node.ucm) return node.ucm->ask(question, gid);
    const world::published<ucm_get_ip_fn_t> get(node.machine(), "ucm_get_ip_fn");
    ibat_arp_data_t record{};
    if (get) question.return_status = (*get)(&gid, &record, question::take_answer, &question);
    if (question.return_status == ibat_stat_ok) question.ip = record.dst_ip;
}

void ask_for_path(question& question, const kq_gid_t& gid, bool bypasses_cache)
{
    kernel::machine& machine = question.asker.machine();
    const world::published<ibat_get_path_fn_t> get(machine, "ibat_get_path_fn");
    const world::published<ibat_refresh_path_fn_t> refresh(machine, "ibat_refresh_path_fn");
    if (!get || !refresh) return;
    question.is_by_path = true;
    question.is_fresh = bypasses_cache;
    question.destination = gid;
    ibat_arp_data_t record{};
    question.return_status = bypasses_cache ? (*refresh)(&gid, question::take_answer, &question)
                                            : (*get)(&gid, &record, question::take_answer, &question);
    if (question.return_status != ibat_stat_pending) check_path(question, question.return_status, record);
    if (question.return_status == ibat_stat_ok) question.gid = record.gid;
}

bool withdraw(question& question)
{
    const char* const cancel_of_address = question.is_by_gid ? "ucm_cancel_fn" : "ibat_cancel_fn";
    const world::published<ibat_cancel_fn_t> cancel(question.asker.machine(),
                                                    question.is_by_path ? "ibat_cancel_path_fn" : cancel_of_address);
    if (!cancel || question.is_of_service) return false;
    const bool was_open = (*cancel)(question::take_answer, &question) > 0;
    question.is_closed = true;
    return was_open;
}

watching_ucm::watching_ucm(node& node) : node_(node)
{
    watching_ucms[&node.machine()] = this;
    node.machine().inter_modules.publish("ucm_rarp_attach_fn", nullptr, reinterpret_cast<const void*>(&attach));
    node.machine().inter_modules.publish("ucm_rarp_detach_fn", nullptr, reinterpret_cast<const void*>(&detach));
}

watching_ucm::~watching_ucm()
{
    node_.machine().inter_modules.withdraw("ucm_rarp_detach_fn");
    node_.machine().inter_modules.withdraw("ucm_rarp_attach_fn");
    watching_ucms.erase(&node_.machine());
}

void watching_ucm::ask(question& question, const kq_gid_t& gid)
{
    if (!send_rarp_) return;
    ibat_arp_data_t query{};
    query.gid = gid;
    question.is_of_service = true;
    ++running_calls_;
    question.return_status = send_rarp_(&query, question::take_answer, &question, provider_context_);
    --running_calls_;
    if (question.return_status == ibat_stat_ok) question.ip = query.dst_ip;
}

ucm_stat_t watching_ucm::attach(send_rarp_fn_t send_rarp, void* provider_context, void** handle)
{
    watching_ucm& self = *watching_ucms.at(&kernel::current_machine(__func__));
    if (self.send_rarp_) self.node_.fabric.violate(self.node_.host.name() + ": a second attach to UCM");
    self.send_rarp_ = send_rarp;
    self.provider_context_ = provider_context;
    *handle = &self;
    return ucm_stat_ok;
}

ucm_stat_t watching_ucm::detach(void* handle)
{
    watching_ucm& self = *watching_ucms.at(&kernel::current_machine(__func__));
    if (handle != &self || !self.send_rarp_)
        self.node_.fabric.violate(self.node_.host.name() + ": a detach from UCM without an attach");
    self.send_rarp_ = nullptr;
    while (self.running_calls_ > 0) schedule_timeout_uninterruptible(1);
    return ucm_stat_ok;
}

} // namespace campaign
