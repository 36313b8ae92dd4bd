#include "host/world/path-resolution.h"

#include <atomic>
#include <iterator>
#include <memory>

#include "host/peers/ibat-path-exports.h"
#include "host/world/elapsed-time.h"
#include "host/world/published.h"
#include "host/world/resolution-reason.h"
#include "kernel/sync.h"
#include "kernel/time.h"

namespace world
{

namespace
{

path_record record_of(const ib_path_record_v2_t& path)
{
    return {.dgid = path.dgid,
            .sgid = path.sgid,
            .dlid = path.dlid,
            .slid = path.slid,
            .p_key = path.pkey,
            .sl = static_cast<uint8_t>(path.sl),
            .mtu = path.mtu,
            .rate = path.rate,
            .packet_lifetime = path.pkt_life_time,
            .hop_limit = static_cast<uint8_t>(path.hop_limut),
            .traffic_class = path.traffic_class,
            .preference = path.preference,
            .flow_label = path.flow_label,
            .is_reversible = path.reversible != 0};
}

bool has_active_port(const kernel::machine& machine)
{
    for (fabric::hca* hca : machine.hcas())
        for (int port = 1; port <= hca->port_count(); ++port)
            if (hca->read_port(port).state == fabric::link_state::active) return true;
    return false;
}

void set_failure(path_resolution& answer, path_status status, const std::string& reason)
{
    answer.status = status;
    answer.reason = reason;
}

// Stores IBAT's answer about the path to a GID in `answer`.
void take_path(path_resolution& answer, ibat_stat_t status, const ibat_arp_data_t& record)
{
    switch (static_cast<int32_t>(status)) {
    case ibat_stat_ok:
        answer.status = path_status::found;
        answer.path = record_of(record.paths[0]);
        answer.port = record.local_port_num;
        return;
    case ibat_stat_no_path:
        return set_failure(answer, path_status::not_found, "the SA knows no path from this host to the GID");
    case ibat_stat_timeout:
        return set_failure(answer, path_status::timed_out, "the SA did not answer in time");
    case ibat_stat_no_port:
        return set_failure(answer, path_status::no_active_port,
                           "the host has no active port: 'ats status' shows its links");
    case ibat_stat_refused:
        return set_failure(answer, path_status::failed, sa_refusal);
    default:
        return set_failure(answer, path_status::failed, not_sent);
    }
}

// Stores in `answer` why IBAT has found no GID for the destination's address.
void take_unknown_address(path_resolution& answer, const resolution& address_answer, const kernel::machine& machine)
{
    if (address_answer.status == ibat_stat_not_found)
        return set_failure(answer, path_status::not_found, address_answer.reason);
    if (address_answer.status == ibat_stat_timeout)
        return set_failure(answer, path_status::timed_out, address_answer.reason);
    if (!has_active_port(machine)) return take_path(answer, ibat_stat_no_port, {});
    set_failure(answer, path_status::failed, address_answer.reason);
}

void note_destination(path_resolution& answer, const path_destination& destination)
{
    if (const uint32_t* ip = std::get_if<uint32_t>(&destination))
        answer.ip = *ip;
    else
        answer.gid = std::get<kq_gid_t>(destination);
}

// One call of start_path_resolution(). The object exists until `callback` has been called. It holds references on IBAT,
// so IBAT stays loaded.
struct path_question {
    path_question(kernel::machine& machine, const path_destination& destination, lookup_mode mode,
                  path_callback callback)
        : machine(machine), get(machine, "ibat_get_path_fn"), refresh(machine, "ibat_refresh_path_fn"), mode(mode),
          callback(std::move(callback)), started_ticks(machine.exec().now())
    {
        note_destination(answer, destination);
        answer.from_cache = true;
    }

    void finish()
    {
        answer.duration_ticks = machine.exec().now() - started_ticks;
        answer.duration_nanoseconds = nanoseconds_since(start_time);
        if (answer.status != path_status::found) answer.from_cache = false;
        callback(answer);
    }

    kernel::machine& machine;
    const published<ibat_get_path_fn_t> get;
    const published<ibat_refresh_path_fn_t> refresh;
    const lookup_mode mode;
    const path_callback callback;
    path_resolution answer;
    const uint64_t started_ticks;
    const steady_clock::time_point start_time = steady_clock::now();
};

void take_reply(ibat_stat_t status, ibat_arp_data_t* record, void* context)
{
    const std::unique_ptr<path_question> question(static_cast<path_question*>(context));
    question->answer.from_cache = false;
    take_path(question->answer, status, *record);
    question->finish();
}

// Asks IBAT for the path to `answer.gid`.
void ask_for_path(std::unique_ptr<path_question> question)
{
    const kq_gid_t gid = question->answer.gid;
    ibat_arp_data_t record{};
    ibat_stat_t status = ibat_stat_error;
    question->machine.enter("path", [&] {
        if (question->mode == lookup_mode::sa_only)
            status = (*question->refresh)(&gid, take_reply, question.get());
        else
            status = (*question->get)(&gid, &record, take_reply, question.get());
    });
    if (status == ibat_stat_pending) {
        static_cast<void>(question.release()); // take_reply() owns the question, and may already have destroyed it
        return;
    }
    take_path(question->answer, status, record);
    question->finish();
}

// Asks IBAT for the GID of the destination's address, and then for the path to this GID.
void ask_for_address(std::unique_ptr<path_question> question)
{
    kernel::machine& machine = question->machine;
    const uint32_t ip = question->answer.ip;
    const auto start = question->mode == lookup_mode::sa_only
                           ? start_fresh_resolution
                           : static_cast<void (*)(kernel::machine&, uint32_t, resolution_callback)>(start_resolution);
    path_question* context = question.release(); // std::function cannot store a unique_ptr; the lambda owns `context`
    start(machine, ip, [context](const resolution& address_answer) {
        std::unique_ptr<path_question> question(context);
        question->answer.from_cache = address_answer.from_cache;
        question->answer.gid = address_answer.gid;
        if (address_answer.status == ibat_stat_ok) return ask_for_path(std::move(question));
        take_unknown_address(question->answer, address_answer, question->machine);
        question->finish();
    });
}

// The answer for which resolve_path() waits. resolve_path() and its callback share the object, because the callback may
// come after the time limit of resolve_path().
struct shared_answer {
    shared_answer() { init_waitqueue_head_named(&arrival, "path"); }

    path_resolution answer;
    std::atomic<bool> has_arrived{false};
    wait_queue_head_t arrival;
};

// Waits until the answer has arrived. Returns false if it has not arrived after `timeout_ticks`. The calling task is
// inside the machine.
bool wait_for(shared_answer& state, uint64_t timeout_ticks)
{
    wait_queue_t sleeper;
    prepare_to_wait(&state.arrival, &sleeper);
    while (!state.has_arrived && timeout_ticks > 0) {
        constexpr uint64_t most_ticks = 60 * HZ;
        const uint64_t ticks = std::min(timeout_ticks, most_ticks);
        const uint64_t rest = schedule_timeout_uninterruptible(ticks);
        if (timeout_ticks != no_path_timeout) timeout_ticks -= ticks - rest;
        prepare_to_wait(&state.arrival, &sleeper);
    }
    finish_wait(&state.arrival, &sleeper);
    return state.has_arrived;
}

} // namespace

uint32_t mtu_bytes_of(const path_record& path)
{
    return path.mtu >= 1 && path.mtu <= 5 ? 128u << path.mtu : 0;
}

double gigabits_of(const path_record& path)
{
    constexpr double by_rate[] = {0,  0,   2.5, 10, 30,  5,   20,  40, 60, 80,  120, 14,
                                  56, 112, 168, 25, 100, 200, 300, 28, 50, 400, 600, 800}; // IBA 15.2.5.16
    return path.rate < std::size(by_rate) ? by_rate[path.rate] : 0;
}

uint64_t lifetime_microseconds_of(const path_record& path)
{
    constexpr uint64_t unit_nanoseconds = 4096;
    constexpr int longest = 63 - 12; // for larger values, the result of the shift overflows
    return path.packet_lifetime <= longest ? (unit_nanoseconds << path.packet_lifetime) / 1000 : 0;
}

void start_path_resolution(kernel::machine& machine, const path_destination& destination, lookup_mode mode,
                           path_callback callback)
{
    auto question = std::make_unique<path_question>(machine, destination, mode, std::move(callback));
    if (!question->get || !question->refresh) {
        question->answer.reason = "ibat is not loaded on this host, or knows no paths";
        return question->finish();
    }
    if (std::holds_alternative<uint32_t>(destination)) return ask_for_address(std::move(question));
    ask_for_path(std::move(question));
}

std::optional<path_resolution> path_from_cache(kernel::machine& machine, const path_destination& destination)
{
    const auto start_time = steady_clock::now();
    const published<ibat_cached_path_fn_t> get(machine, "ibat_cached_path_fn");
    if (!get) return std::nullopt;
    path_resolution answer;
    note_destination(answer, destination);
    if (answer.ip != 0) {
        const std::optional<resolution> address_answer = answer_from_cache(machine, answer.ip);
        if (!address_answer) return std::nullopt;
        answer.gid = address_answer->gid;
        if (address_answer->status != ibat_stat_ok) {
            take_unknown_address(answer, *address_answer, machine);
            answer.duration_nanoseconds = nanoseconds_since(start_time);
            return answer;
        }
    }
    ibat_arp_data_t record{};
    ibat_stat_t status = ibat_stat_error;
    machine.enter("path", [&] { status = (*get)(&answer.gid, &record); });
    if (status != ibat_stat_ok) return std::nullopt;
    take_path(answer, status, record);
    answer.from_cache = true;
    answer.duration_nanoseconds = nanoseconds_since(start_time);
    return answer;
}

path_resolution resolve_path(kernel::machine& machine, const path_destination& destination, lookup_mode mode,
                             uint64_t timeout_ticks)
{
    path_resolution unanswered;
    note_destination(unanswered, destination);
    if (mode == lookup_mode::cache_only) {
        if (const std::optional<path_resolution> cache_answer = path_from_cache(machine, destination))
            return *cache_answer;
        set_failure(unanswered, path_status::not_cached, "it is not in the cache");
        return unanswered;
    }
    const auto state = std::make_shared<shared_answer>();
    bool has_arrived = false;
    machine.enter("path", [&] {
        start_path_resolution(machine, destination, mode, [state](const path_resolution& answer) {
            state->answer = answer;
            state->has_arrived = true;
            wake_up_interruptible(&state->arrival);
        });
        has_arrived = wait_for(*state, timeout_ticks);
    });
    if (has_arrived) return state->answer;
    set_failure(unanswered, path_status::timed_out, "no answer came within " + std::to_string(timeout_ticks) + " ms");
    return unanswered;
}

} // namespace world
