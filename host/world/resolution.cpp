#include "host/world/resolution.h"

#include <chrono>

#include "host/peers/ibat-exports.h"
#include "host/peers/ucm-exports.h"
#include "host/world/published.h"
#include "kernel/sync.h"

namespace world
{

namespace
{

// One answer that a callback brings to a sleeping asker.
struct awaited_answer {
    awaited_answer() { sema_init(&arrived, 0); }

    static void take(ibat_stat_t status, ibat_arp_data_t* record, void* context)
    {
        auto& self = *static_cast<awaited_answer*>(context);
        self.status = status;
        if (record) self.record = *record;
        up(&self.arrived);
    }

    ibat_stat_t status = ibat_stat_error;
    ibat_arp_data_t record{};
    semaphore arrived;
};

constexpr const char* not_cached = "it is not in the cache";
constexpr const char* not_sent = "the request could not be sent: is a port active, and what does the log say?";
constexpr const char* refused = "the SA refused the question";

// `error` is what an error means here.
std::string reason(const resolution& answer, const char* error)
{
    switch (answer.status) {
    case ibat_stat_ok:
        return "";
    case ibat_stat_not_found: // an SA with several records of it names none either
        return answer.from_cache ? "the SA named no owner a moment ago" : "the SA names no owner";
    case ibat_stat_timeout:
        return "the SA did not answer in time";
    default:
        return error;
    }
}

// Runs `request` inside the machine, waits for its callback when one is to come, and fills the common fields.
template <class request_t>
resolution ask_inside(kernel::machine& machine, request_t request)
{
    resolution answer;
    machine.enter("resolve", [&] {
        const auto started = std::chrono::steady_clock::now();
        const uint64_t started_ticks = machine.exec().now();
        awaited_answer awaited;
        answer.status = request(awaited);
        answer.from_cache = answer.status != ibat_stat_pending; // or came to nothing at once
        if (answer.status == ibat_stat_pending) {
            down(&awaited.arrived);
            answer.status = awaited.status;
        }
        answer.ip = awaited.record.dst_ip;
        answer.gid = awaited.record.gid;
        answer.took_ticks = machine.exec().now() - started_ticks;
        answer.took_nanoseconds =
            static_cast<uint64_t>(std::chrono::nanoseconds(std::chrono::steady_clock::now() - started).count());
    });
    return answer;
}

resolution not_loaded(const char* module)
{
    resolution answer;
    answer.why = std::string(module) + " is not loaded on this host";
    return answer;
}

} // namespace

resolution resolve_address(kernel::machine& machine, uint32_t ip, ask how)
{
    const published<ibat_get_ib_data_fn_t> get(machine, "ibat_get_ib_data_fn");
    const published<ibat_refresh_fn_t> refresh(machine, "ibat_refresh_fn");
    const published<ibat_peek_fn_t> peek(machine, "ibat_peek_fn");
    if (!get || !refresh || !peek) return not_loaded("ibat");
    resolution answer = ask_inside(machine, [&](awaited_answer& awaited) {
        if (how == ask::cache_only) return (*peek)(ip, &awaited.record);
        if (how == ask::sa_only) return (*refresh)(ip, awaited_answer::take, &awaited);
        return (*get)(ip, &awaited.record, awaited_answer::take, &awaited);
    });
    answer.ip = ip;
    answer.why = reason(answer, how == ask::cache_only ? not_cached : not_sent);
    return answer;
}

resolution resolve_gid(kernel::machine& machine, const kq_gid_t& gid, ask how)
{
    const published<ucm_get_ip_fn_t> get(machine, "ucm_get_ip_fn");
    const published<ibat_seq_cache_lookup_fn_t> peek(machine, "ibat_seq_cache_lookup_fn");
    if (!get) return not_loaded("ucm");
    if (!peek) return not_loaded("ibat");
    resolution answer = ask_inside(machine, [&](awaited_answer& awaited) {
        kq_gid_t asked = gid;
        if (how == ask::cache_only) // a miss says nothing about the SA
            return (*peek)(&asked, &awaited.record) == ibat_stat_ok ? ibat_stat_ok : ibat_stat_error;
        return (*get)(&asked, &awaited.record, awaited_answer::take, &awaited);
    });
    answer.gid = gid;
    answer.why = reason(answer, how == ask::cache_only ? not_cached : answer.from_cache ? not_sent : refused);
    return answer;
}

} // namespace world
