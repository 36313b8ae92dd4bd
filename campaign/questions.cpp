#include "campaign/questions.h"

#include <map>

#include "campaign/tested-fabric.h"
#include "host/peers/ibat-exports.h"
#include "host/peers/ucm-exports.h"
#include "host/world/published.h"
#include "kernel/sync.h"

namespace campaign
{

namespace
{

// Limits of the service's own requests. IBAT and UCM add their retries and their queues of replies.
constexpr uint64_t shortest_wait_ticks = 1000, longest_wait_ticks = 2000;
constexpr uint64_t longest_wait_for_peers_ticks = 6000;

std::map<const kernel::machine*, watching_ucm*> watching_ucms;

} // namespace

void question::answered(ibat_stat_t status, ibat_arp_data_t* record, void* self)
{
    question& question = *static_cast<campaign::question*>(self);
    tested_fabric& fabric = question.asker.fabric;
    const uint64_t elapsed_ticks = fabric.now() - question.begun_tick;
    const std::string subject = question.asker.host.name() + ": a question ";
    if (question.replies++ > 0) fabric.violate(subject + "was answered twice");
    if (question.is_closed) fabric.violate(subject + "was answered after it had been withdrawn");
    if (exec::current_task()->spin_locks > 0) fabric.violate(subject + "was answered under a lock");
    if (question.of_service && status == ibat_stat_timeout && elapsed_ticks < shortest_wait_ticks)
        fabric.violate(subject + "timed out after " + std::to_string(elapsed_ticks) + " ticks");
    if (elapsed_ticks >= (question.of_service ? longest_wait_ticks : longest_wait_for_peers_ticks))
        fabric.violate(subject + "was answered too late, after " + std::to_string(elapsed_ticks) + " ticks");
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
            question.returned = (*refresh)(ip, question::answered, &question);
    } else if (const world::published<ibat_get_ib_data_fn_t> get(machine, "ibat_get_ib_data_fn"); get) {
        question.returned = (*get)(ip, &record, question::answered, &question);
        if (question.returned == ibat_stat_ok) question.gid = record.gid;
    }
}

void ask_for_address(question& question, const kq_gid_t& gid)
{
    node& node = question.asker;
    question.by_gid = true;
    if (node.ucm) return node.ucm->ask(question, gid);
    const world::published<ucm_get_ip_fn_t> get(node.machine(), "ucm_get_ip_fn");
    ibat_arp_data_t record{};
    if (get) question.returned = (*get)(&gid, &record, question::answered, &question);
    if (question.returned == ibat_stat_ok) question.ip = record.dst_ip;
}

bool withdraw(question& question)
{
    const world::published<ibat_cancel_fn_t> cancel(question.asker.machine(),
                                                    question.by_gid ? "ucm_cancel_fn" : "ibat_cancel_fn");
    if (!cancel || question.of_service) return false;
    const bool was_open = (*cancel)(question::answered, &question) > 0;
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
    question.of_service = true;
    ++calls_running_;
    question.returned = send_rarp_(&query, question::answered, &question, provider_context_);
    --calls_running_;
    if (question.returned == ibat_stat_ok) question.ip = query.dst_ip;
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
    while (self.calls_running_ > 0) schedule_timeout_uninterruptible(1);
    return ucm_stat_ok;
}

} // namespace campaign
