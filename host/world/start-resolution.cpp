// Implements the lookups of resolution.h that do not wait for the answer. A server uses them to answer many clients.
#include <memory>

#include "host/peers/ibat-exports.h"
#include "host/peers/ucm-exports.h"
#include "host/world/elapsed-time.h"
#include "host/world/published.h"
#include "host/world/resolution-reason.h"
#include "host/world/resolution.h"

namespace world
{

namespace
{

// One call of start_resolution() or start_fresh_resolution(). The object exists until `callback` has been called. It
// holds a reference on the module that answers, IBAT or UCM, so the module stays loaded.
template <class function_t>
struct question {
    // `callback_error` is the reason (see reason_of()) if the callback gets ibat_stat_error.
    question(kernel::machine& machine, const char* function, const char* callback_error, resolution_callback callback)
        : call(machine, function), callback_error(callback_error), callback(std::move(callback))
    {
    }

    // Calls `callback` with the answer. `status` and `record` come from the module.
    void finish(ibat_stat_t status, const ibat_arp_data_t& record, bool from_cache)
    {
        answer.status = status;
        answer.from_cache = from_cache;
        if (status == ibat_stat_ok) {
            answer.ip = record.dst_ip;
            answer.gid = record.gid;
        }
        answer.duration_nanoseconds = nanoseconds_since(start_time);
        answer.reason = reason_of(answer, from_cache ? not_sent : callback_error);
        callback(answer);
    }

    static void take_reply(ibat_stat_t status, ibat_arp_data_t* record, void* context)
    {
        const std::unique_ptr<question> self(static_cast<question*>(context));
        self->finish(status, *record, false);
    }

    const published<function_t> call;
    const char* const callback_error;
    const resolution_callback callback;
    resolution answer; // contains the address or GID from the beginning, and the rest from finish() on
    const steady_clock::time_point start_time = steady_clock::now();
};

// Asks a module by calling ask(question, record). The module either answers at once, or calls take_reply() later.
// Calls `callback` at once if the module is not loaded.
template <class question_t, class ask_t>
void ask_module(kernel::machine& machine, std::unique_ptr<question_t> query, const char* module, ask_t ask)
{
    if (!query->call) {
        query->answer.reason = std::string(module) + " is not loaded on this host";
        return query->callback(query->answer);
    }
    ibat_arp_data_t record{};
    ibat_stat_t status = ibat_stat_error;
    machine.enter("resolve", [&] { status = ask(*query, &record); });
    if (status == ibat_stat_pending)
        static_cast<void>(query.release()); // take_reply() owns the question, and may already have destroyed it
    else
        query->finish(status, record, true);
}

// Searches IBAT's cache for `subject`, an address or a pointer to a GID. Returns nothing if the cache does not have the
// answer. For a GID, ibat_stat_not_found only means that the cache does not have the GID.
template <class function_t, class subject_t>
std::optional<resolution> look_up(kernel::machine& machine, const char* function, subject_t subject)
{
    constexpr bool is_by_gid = std::is_pointer_v<subject_t>;
    const published<function_t> call(machine, function);
    if (!call) return std::nullopt;
    const auto start_time = steady_clock::now();
    ibat_arp_data_t record{};
    ibat_stat_t status = ibat_stat_error;
    machine.enter("resolve", [&] { status = (*call)(subject, &record); });
    if (status != ibat_stat_ok && (is_by_gid || status != ibat_stat_not_found)) return std::nullopt;
    resolution answer;
    answer.status = status;
    answer.from_cache = true;
    answer.ip = record.dst_ip;
    answer.gid = record.gid;
    answer.duration_nanoseconds = nanoseconds_since(start_time);
    answer.reason = reason_of(answer, not_sent);
    return answer;
}

} // namespace

void start_resolution(kernel::machine& machine, uint32_t ip, resolution_callback callback)
{
    using question_t = question<ibat_get_ib_data_fn_t>;
    auto query = std::make_unique<question_t>(machine, "ibat_get_ib_data_fn", not_sent, std::move(callback));
    query->answer.ip = ip;
    ask_module(machine, std::move(query), "ibat", [&](question_t& query, ibat_arp_data_t* record) {
        return (*query.call)(ip, record, question_t::take_reply, &query);
    });
}

void start_fresh_resolution(kernel::machine& machine, uint32_t ip, resolution_callback callback)
{
    using question_t = question<ibat_refresh_fn_t>;
    auto query = std::make_unique<question_t>(machine, "ibat_refresh_fn", not_sent, std::move(callback));
    query->answer.ip = ip;
    ask_module(machine, std::move(query), "ibat",
               [&](question_t& query, ibat_arp_data_t*) { return (*query.call)(ip, question_t::take_reply, &query); });
}

void start_resolution(kernel::machine& machine, const kq_gid_t& gid, resolution_callback callback)
{
    using question_t = question<ucm_get_ip_fn_t>;
    auto query = std::make_unique<question_t>(machine, "ucm_get_ip_fn", sa_refusal, std::move(callback));
    query->answer.gid = gid;
    ask_module(machine, std::move(query), "ucm", [&](question_t& query, ibat_arp_data_t* record) {
        return (*query.call)(&gid, record, question_t::take_reply, &query);
    });
}

std::optional<resolution> answer_from_cache(kernel::machine& machine, uint32_t ip)
{
    return look_up<ibat_cached_fn_t>(machine, "ibat_cached_fn", ip);
}

std::optional<resolution> answer_from_cache(kernel::machine& machine, const kq_gid_t& gid)
{
    kq_gid_t key = gid;
    return look_up<ibat_seq_cache_lookup_fn_t>(machine, "ibat_seq_cache_lookup_fn", &key);
}

} // namespace world
