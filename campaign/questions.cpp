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

// Of the service's own requests. The peers' retries and their queues of replies come on top.
constexpr uint64_t shortest_wait_ticks = 1000, longest_wait_ticks = 2000;
constexpr uint64_t longest_wait_for_peers_ticks = 6000;

std::map<const kernel::machine*, watching_ucm*> watching;

} // namespace

void question::answered(ibat_stat_t status, ibat_arp_data_t* record, void* self)
{
    question& it = *static_cast<question*>(self);
    arena& in = it.asked_at.in;
    const uint64_t took = in.now() - it.begun_tick;
    const std::string who = it.asked_at.host.name() + ": a question ";
    if (it.replies++ > 0) in.violate(who + "was answered twice");
    if (it.is_closed) in.violate(who + "was answered after it had been withdrawn");
    if (exec::current_task()->spin_locks > 0) in.violate(who + "was answered under a lock");
    if (it.of_service && status == ibat_stat_timeout && took < shortest_wait_ticks)
        in.violate(who + "timed out after " + std::to_string(took) + " ticks");
    if (took >= (it.of_service ? longest_wait_ticks : longest_wait_for_peers_ticks))
        in.violate(who + "was answered after " + std::to_string(took) + " ticks only");
    it.status = status;
    if (record) it.ip = record->dst_ip;
    if (record) it.gid = record->gid;
    ++in.done.answers;
}

void ask_for_gid(question& asked, uint32_t ip, bool past_the_cache)
{
    kernel::machine& machine = asked.asked_at.machine();
    ibat_arp_data_t record{};
    if (past_the_cache) {
        if (const world::published<ibat_refresh_fn_t> refresh(machine, "ibat_refresh_fn"); refresh)
            asked.returned = (*refresh)(ip, question::answered, &asked);
    } else if (const world::published<ibat_get_ib_data_fn_t> get(machine, "ibat_get_ib_data_fn"); get) {
        asked.returned = (*get)(ip, &record, question::answered, &asked);
        asked.gid = asked.returned == ibat_stat_ok ? record.gid : asked.gid;
    }
}

void ask_for_address(question& asked, const kq_gid_t& gid)
{
    node& at = asked.asked_at;
    asked.by_gid = true;
    if (at.ucm) return at.ucm->ask(asked, gid);
    const world::published<ucm_get_ip_fn_t> get(at.machine(), "ucm_get_ip_fn");
    ibat_arp_data_t record{};
    if (get) asked.returned = (*get)(&gid, &record, question::answered, &asked);
    if (asked.returned == ibat_stat_ok) asked.ip = record.dst_ip;
}

bool withdraw(question& asked)
{
    const world::published<ibat_cancel_fn_t> cancel(asked.asked_at.machine(),
                                                    asked.by_gid ? "ucm_cancel_fn" : "ibat_cancel_fn");
    if (!cancel || asked.of_service) return false;
    const bool withdrawn = (*cancel)(question::answered, &asked) > 0;
    asked.is_closed = true;
    return withdrawn;
}

watching_ucm::watching_ucm(node& at) : at_(at)
{
    watching[&at.machine()] = this;
    at.machine().inter_modules.publish("ucm_rarp_attach_fn", nullptr, reinterpret_cast<const void*>(&attach));
    at.machine().inter_modules.publish("ucm_rarp_detach_fn", nullptr, reinterpret_cast<const void*>(&detach));
}

watching_ucm::~watching_ucm()
{
    at_.machine().inter_modules.withdraw("ucm_rarp_detach_fn");
    at_.machine().inter_modules.withdraw("ucm_rarp_attach_fn");
    watching.erase(&at_.machine());
}

void watching_ucm::ask(question& asked, const kq_gid_t& gid)
{
    if (!send_rarp_) return;
    ibat_arp_data_t query{};
    query.gid = gid;
    asked.of_service = true;
    ++calls_running_;
    asked.returned = send_rarp_(&query, question::answered, &asked, provider_context_);
    --calls_running_;
    if (asked.returned == ibat_stat_ok) asked.ip = query.dst_ip;
}

ucm_stat_t watching_ucm::attach(send_rarp_fn_t send_rarp, void* provider_context, void** handle)
{
    watching_ucm& self = *watching.at(&kernel::current_machine(__func__));
    if (self.send_rarp_) self.at_.in.violate(self.at_.host.name() + ": a second attach to UCM");
    self.send_rarp_ = send_rarp;
    self.provider_context_ = provider_context;
    *handle = &self;
    return ucm_stat_ok;
}

ucm_stat_t watching_ucm::detach(void* handle)
{
    watching_ucm& self = *watching.at(&kernel::current_machine(__func__));
    if (handle != &self || !self.send_rarp_) self.at_.in.violate(self.at_.host.name() + ": a detach of nobody");
    self.send_rarp_ = nullptr;
    while (self.calls_running_ > 0) schedule_timeout_uninterruptible(1);
    return ucm_stat_ok;
}

} // namespace campaign
