#include "host/world/resolution.h"

#include <chrono>

#include "host/peers/ibat-exports.h"
#include "host/peers/ucm-exports.h"
#include "host/world/published.h"
#include "host/world/resolution-reason.h"
#include "kernel/sync.h"

namespace world
{

namespace
{

// The answer for which a task waits. The callback store() fills it and wakes the task.
struct pending_answer {
    pending_answer() { sema_init(&arrival, 0); }

    static void store(ibat_stat_t status, ibat_arp_data_t* record, void* context)
    {
        auto& self = *static_cast<pending_answer*>(context);
        self.status = status;
        if (record) self.record = *record;
        up(&self.arrival);
    }

    ibat_stat_t status = ibat_stat_error;
    ibat_arp_data_t record{};
    semaphore arrival;
};

constexpr const char* not_cached = "it is not in the cache";

// Runs `request` inside the machine. If `request` returns ibat_stat_pending, waits for the callback. Returns the answer
// with all fields except the reason.
template <class request_t>
resolution resolve_inside(kernel::machine& machine, request_t request)
{
    resolution answer;
    machine.enter("resolve", [&] {
        const auto begin = std::chrono::steady_clock::now();
        const uint64_t begin_ticks = machine.exec().now();
        pending_answer pending;
        answer.status = request(pending);
        answer.from_cache = answer.status != ibat_stat_pending; // also true if the request has failed at once
        if (answer.status == ibat_stat_pending) {
            down(&pending.arrival);
            answer.status = pending.status;
        }
        answer.ip = pending.record.dst_ip;
        answer.gid = pending.record.gid;
        answer.duration_ticks = machine.exec().now() - begin_ticks;
        answer.duration_nanoseconds =
            static_cast<uint64_t>(std::chrono::nanoseconds(std::chrono::steady_clock::now() - begin).count());
    });
    return answer;
}

resolution not_loaded(const char* module)
{
    resolution answer;
    answer.reason = std::string(module) + " is not loaded on this host";
    return answer;
}

} // namespace

resolution resolve_address(kernel::machine& machine, uint32_t ip, lookup_mode mode)
{
    const published<ibat_get_ib_data_fn_t> get(machine, "ibat_get_ib_data_fn");
    const published<ibat_refresh_fn_t> refresh(machine, "ibat_refresh_fn");
    const published<ibat_peek_fn_t> peek(machine, "ibat_peek_fn");
    if (!get || !refresh || !peek) return not_loaded("ibat");
    resolution answer = resolve_inside(machine, [&](pending_answer& pending) {
        switch (mode) {
        case lookup_mode::cache_only:
            return (*peek)(ip, &pending.record);
        case lookup_mode::sa_only:
            return (*refresh)(ip, pending_answer::store, &pending);
        default:
            return (*get)(ip, &pending.record, pending_answer::store, &pending);
        }
    });
    answer.ip = ip;
    answer.reason = reason_of(answer, mode == lookup_mode::cache_only ? not_cached : not_sent);
    return answer;
}

resolution resolve_gid(kernel::machine& machine, const kq_gid_t& gid, lookup_mode mode)
{
    const published<ucm_get_ip_fn_t> get(machine, "ucm_get_ip_fn");
    const published<ibat_seq_cache_lookup_fn_t> peek(machine, "ibat_seq_cache_lookup_fn");
    if (!get) return not_loaded("ucm");
    if (!peek) return not_loaded("ibat");
    resolution answer = resolve_inside(machine, [&](pending_answer& pending) {
        kq_gid_t gid_argument = gid; // `peek` needs a pointer to a GID that is not const
        if (mode != lookup_mode::cache_only)
            return (*get)(&gid_argument, &pending.record, pending_answer::store, &pending);
        // A miss is an error, not ibat_stat_not_found: the SA may have a record of a GID that is not in the cache.
        return (*peek)(&gid_argument, &pending.record) == ibat_stat_ok ? ibat_stat_ok : ibat_stat_error;
    });
    answer.gid = gid;
    const char* const failed_request = answer.from_cache ? not_sent : sa_refusal;
    answer.reason = reason_of(answer, mode == lookup_mode::cache_only ? not_cached : failed_request);
    return answer;
}

} // namespace world
