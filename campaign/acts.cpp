// Everything that can happen in a campaign.
#include <algorithm>
#include <array>
#include <cstring>

#include "campaign/tested-fabric.h"
#include "host/world/published.h"
#include "host/world/text.h"
#include "kernel/sync.h"

namespace campaign
{

namespace
{

constexpr uint16_t spare_lids = 0x1000; // LIDs from here on are no port's

// ---- what users do ----

// `kind`: the act whose mark the answer will count for, if any.
question& new_question(node& at, std::optional<uint32_t> kind)
{
    ++at.in.done.questions;
    return at.questions.emplace_back(question{.asked_at = at, .kind = kind, .begun_tick = at.in.now()});
}

// An address that somebody has or had, or nobody.
uint32_t any_address(arena& in, uint32_t a)
{
    const node& of = in.hosts[a % in.hosts.size()];
    return a % 16 == 0 ? 0x0100000Au + a : of.addresses_given[(a >> 8) % of.addresses_given.size()];
}

kq_gid_t any_gid(arena& in, uint32_t a)
{
    node& of = in.hosts[a % in.hosts.size()];
    fabric::hca& hca = *of.hcas[(a >> 8) % of.hcas.size()];
    const auto gid = hca.read_port(1 + static_cast<int>((a >> 16) % static_cast<uint32_t>(hca.port_count()))).gids[0];
    kq_gid_t read = *world::parse_gid(embedded::text_of(gid));
    if (a % 16 == 0) ++read.subnet; // nobody's
    return read;
}

void ask_gid(arena& in, const act& it)
{
    node& host = in.host(it);
    host.start("ask", [&host, ip = any_address(in, it.a), it] {
        ask_for_gid(new_question(host, it.kind), ip, it.b % 2 == 0);
    });
}

void ask_address(arena& in, const act& it)
{
    node& host = in.host(it);
    host.start("ask", [&host, gid = any_gid(in, it.a), it] { ask_for_address(new_question(host, it.kind), gid); });
}

// True if so many questions of the host wait for an answer that the module's pool has too few datagrams for them.
bool has_many_open(const node& host)
{
    constexpr ptrdiff_t pool_size = 16;
    return std::ranges::count_if(host.questions, [](const question& each) { return !each.is_settled(); }) > pool_size;
}

// Half of the questions are for a GID, half for an address.
void ask_many(arena& in, const act& it)
{
    node& host = in.host(it);
    for (uint32_t i = 0; i < 10 + it.b % 40; ++i) {
        const uint32_t a = it.a + (i << 8 | i);
        if (i % 2 == 0)
            host.start("ask", [&host, ip = any_address(in, a), it] {
                ask_for_gid(new_question(host, std::nullopt), ip, it.b % 2 == 0);
                host.in.mark(it, has_many_open(host));
            });
        else
            host.start("ask", [&host, gid = any_gid(in, a), it] {
                ask_for_address(new_question(host, std::nullopt), gid);
                host.in.mark(it, has_many_open(host));
            });
    }
}

void withdraw_some(arena& in, const act& it)
{
    node& at = in.host(it);
    at.start("withdraw", [&at, it] {
        for (size_t i = at.questions.size(); i-- > 0 && i + 4 > at.questions.size();)
            if (!at.questions[i].is_closed) at.in.mark(it, withdraw(at.questions[i]));
    });
}

void report(arena& in, const act& it)
{
    node& at = in.host(it);
    at.start("report", [&at, it] { at.in.mark(it, !at.read_control().empty()); });
}

// Writes to the control file. True if it was taken and the task sent a request meanwhile.
bool write_makes_request(node& at, const std::string& text)
{
    const uint64_t sent_before = at.in.wire.sent_by_this_task();
    return at.write_control(text) && at.in.wire.sent_by_this_task() > sent_before;
}

void control_rarp(arena& in, const act& it)
{
    node& at = in.host(it);
    at.start("control", [&at, it, gid = any_gid(in, it.a)] {
        at.in.mark(it, write_makes_request(at, "rarp " + world::format_gid(gid)));
    });
}

// Words that are commands, words that are none, wrong numbers of them, bytes, and more than there is room for. None of
// it changes what the host registers.
void control_garbage(arena& in, const act& it)
{
    static const char* const words[] = {"rarp",
                                        "0x",
                                        "set_ip_addrs",
                                        "1.2.3",
                                        "sa_verify_period",
                                        "x",
                                        "delete_ip",
                                        "",
                                        "show_local",
                                        "dump_requests",
                                        "\v\t",
                                        "help",
                                        "0xg",
                                        "-1",
                                        "\xff\x80"};
    std::string text;
    for (uint32_t i = 0, bits = it.b; i < it.a % 7; ++i, bits >>= 4) text += std::string(words[bits % 15]) + " ";
    if (it.a % 11 == 0) text += std::string(it.b % 5000, static_cast<char>('!' + it.b % 90));
    if (it.a % 5 == 0) text += '\n';
    node& at = in.host(it);
    at.longest_period = 180;
    at.may_not_verify = true;
    at.start("control", [&at, it, text] {
        std::string said;
        at.in.mark(it, at.write_control(text, &said) && !said.empty());
    });
}

void verify_period(arena& in, const act& it)
{
    static constexpr int periods[] = {0, -5, 10, 20, 30, 60, 90}, skews[] = {0, 1, 10, 100, 250, -7};
    node& at = in.host(it);
    at.longest_period = 180; // the longest of these, twice
    at.may_not_verify = true;
    const int period = periods[it.a % 7], skew = skews[it.b % 6];
    at.start("control", [&at, it, period, skew] {
        if (at.write_control("sa_verify_period " + std::to_string(period) + " " + std::to_string(skew)))
            at.expect_verification(it, {{"period", std::max(period, 0)}, {"skew", std::clamp(skew, 0, 100)}});
    });
}

// ---- what the administrator changes; it must be true at the SA soon ----

void expect_truth_soon(node& at)
{
    at.disturbed_tick = at.in.now();
    at.start("check", [&at, acted_tick = at.in.now()] { check_promptly(at, acted_tick); });
}

// A host is given a name by the control file or by the exported call.
bool give_name(node& at, const std::string& name, uint32_t way)
{
    std::string said;
    if (way % 2 == 0) return at.write_control("set_host_name " + name, &said) && said.find("FAIL") == std::string::npos;
    const kernel::held_symbol call(at.machine().modules, "ats", "ats_sa_set_hostname");
    return call && call.as<int32_t (*)(const char*)>()(name.c_str()) == 0;
}

bool give_address(node& at, uint32_t ip, uint32_t way)
{
    using set_address = int32_t (*)(uint32_t);
    const std::string text = world::format_ipv4(ip);
    std::string said;
    if (way % 4 == 0) return at.write_control("set_ip_addrs " + text, &said) && said.find("FAIL") == std::string::npos;
    if (way % 4 == 1) {
        const world::published<set_address> call(at.machine(), "ATS_SA_SET_IP_ADDR");
        return call && (*call)(ip) == 0;
    }
    const kernel::held_symbol call(at.machine().modules, "ats",
                                   way % 4 == 2 ? "ats_sa_set_ip_addrs" : "ats_sa_set_ip_addrs_str");
    if (!call) return false;
    return (way % 4 == 2 ? call.as<set_address>()(ip) : call.as<int32_t (*)(const char*)>()(text.c_str())) == 0;
}

void rename(arena& in, const act& it)
{
    node& at = in.host(it);
    at.start("rename", [&at, it] {
        const std::string name = at.next_name(it.b);
        const uint64_t began_tick = at.in.now();
        at.change_identity([&] { return at.in.mark(it, give_name(at, name, it.a)); },
                           [&] {
                               at.name = name;
                               at.name_is_certain = true;
                               at.name_tick = began_tick;
                           });
        expect_truth_soon(at);
    });
}

void readdress(arena& in, const act& it)
{
    node& at = in.host(it);
    at.start("readdress", [&at, it] {
        const uint32_t ip = at.next_address();
        at.change_identity([&] { return at.in.mark(it, give_address(at, ip, it.a)); },
                           [&] {
                               at.address.assign(at.hcas.size(), ip);
                               at.address_is_certain = true;
                           });
        expect_truth_soon(at);
    });
}

// The first HCA's record goes, until its next verification sets one with the new address.
void delete_ip(arena& in, const act& it)
{
    node& at = in.host(it);
    at.start("control", [&at, it] {
        const uint32_t ip = at.next_address();
        at.change_identity(
            [&] { return at.in.mark(it, write_makes_request(at, "delete_ip " + world::format_ipv4(ip))); }, [] {});
    });
}

const char* any_module(uint32_t a)
{
    static const char* const modules[] = {"ats", "ats", "ibat", "ucm"};
    return modules[a % 4];
}

void insmod(arena& in, const act& it)
{
    node& at = in.host(it);
    at.start("insmod", [&at, it] {
        if (at.in.mark(it, at.load(any_module(it.a)))) expect_truth_soon(at);
    });
}

void rmmod(arena& in, const act& it)
{
    node& at = in.host(it);
    at.start("rmmod", [&at, it] { at.in.mark(it, at.unload(any_module(it.a))); });
}

// ---- links ----

fabric::hca& any_hca(node& at, const act& it)
{
    return *at.hcas[it.a % at.hcas.size()];
}

// Sets the link's state. True if the state changed.
bool change_link(arena& in, const act& it, bool up)
{
    node& at = in.host(it);
    fabric::hca& hca = any_hca(at, it);
    const int port = 1 + static_cast<int>(it.b % static_cast<uint32_t>(hca.port_count()));
    const fabric::link_state before = hca.read_port(port).state;
    (void)(up ? in.net.link_up(at.host.name(), hca.name(), port) : in.net.link_down(at.host.name(), hca.name(), port));
    ++in.done.faults;
    expect_truth_soon(at);
    return hca.read_port(port).state != before;
}
void link_goes_down(arena& in, const act& it)
{
    in.mark(it, change_link(in, it, false));
}
void link_comes_up(arena& in, const act& it)
{
    change_link(in, it, true);
}

// Many events in one tick; the links are up behind them.
void event_storm(arena& in, const act& it)
{
    act one = it;
    for (uint32_t i = 0; i < 2 + it.a % 60; ++i, one.b = one.b * 0x9E3779B1 + 1)
        in.mark(it, change_link(in, one, one.b >> 31));
    for (one.b = 0; one.b < 2; ++one.b) change_link(in, one, true);
}

// ---- faults of a host ----

// Counts the failed calls of the act that armed the host's fault injector, if there is one, and disarms it.
void end_failing_calls(node& at)
{
    kernel::fault_injector& faults = at.machine().faults;
    if (at.failing_calls) {
        at.in.done.marks[at.failing_calls->kind] += faults.failures();
        at.in.done.faults += faults.failures();
    }
    at.failing_calls.reset();
    faults.disarm();
}

// An act that fails calls takes the place of one that the host has already.
kernel::fault_injector& begin_failing_calls(node& at, const act& it)
{
    end_failing_calls(at);
    at.failing_calls = it;
    at.may_be_misread = true;
    return at.machine().faults;
}

void calls_fail_by_chance(arena& in, const act& it)
{
    begin_failing_calls(in.host(it), it).fail_some(1 + it.a % 40, it.b);
}

void one_call_fails(arena& in, const act& it)
{
    static const char* const calls[] = {"gsi_dtgrm_pool_get",   "gsi_post_send_dtgrm",       "kq_port_query",
                                        "kq_get_port_gid_tbl",  "kq_get_port_partition_tbl", "kmalloc",
                                        "gsi_deregister_class", "down_interruptible",        "copy_from_user"};
    begin_failing_calls(in.host(it), it).fail_calls(calls[it.a % 9], 1 + it.b % 30);
}

void calls_work(arena& in, const act& it)
{
    end_failing_calls(in.host(it));
}

void signal_a_task(arena& in, const act& it)
{
    std::vector<exec::task*> own;
    for (exec::task* each : in.sim->tasks())
        if (each->home == &in.host(it).machine()) own.push_back(each);
    if (!own.empty()) exec::send_signal(*own[it.a % own.size()]);
}

void clear_signals(arena& in, const act& it)
{
    for (exec::task* each : in.sim->tasks())
        if (each->home == &in.host(it).machine()) exec::clear_signal(*each);
    in.done.marks[it.kind] += in.host(it).machine().signals_seen.exchange(0);
}

// ---- faults of the network and of the SA ----

// A switch of the subnet's, true or a number: set to 1 up to `most` while the act lasts.
template <auto knob, uint32_t most = 1>
act_kind switches(const char* name, int weight, uint64_t longest_ticks, const char* mark,
                  uint64_t embedded::fault_effects::*effect)
{
    return {name,
            weight,
            harm::network,
            longest_ticks,
            [](arena& in, const act& it) { in.net.faults.*knob = 1 + it.a % most; },
            [](arena& in, const act&) { in.net.faults.*knob = 0; },
            mark,
            effect};
}

void sa_answers_a_status(arena& in, const act& it)
{
    const uint16_t status = it.b % 3 == 0 ? static_cast<uint16_t>(it.a) : static_cast<uint16_t>((it.a % 9) << 8);
    in.net.faults.answer_with(status, 1 + it.b % 50);
}
void sa_answers_again(arena& in, const act&)
{
    in.net.faults.sa_status_count = 0;
}

void sa_forgets_all(arena& in, const act& it)
{
    in.mark(it, in.net.forget_all() > 0);
}

void sa_forgets_one(arena& in, const act& it)
{
    node& at = in.host(it);
    fabric::hca& hca = any_hca(at, it);
    for (int port = 1; port <= hca.port_count(); ++port) in.mark(it, in.net.forget(hca.read_port(port).gids[0]) > 0);
}

void sa_comes_back_from_the_past(arena& in, const act& it)
{
    const std::vector<ib_service_record_v2_t> before = in.net.save_records();
    in.net.restore_records(in.kept_records[it.a % in.kept_records.size()]);
    const auto is_same = [](const auto& a, const auto& b) { return memcmp(&a, &b, sizeof a) == 0; };
    in.mark(it, !std::ranges::equal(before, in.net.save_records(), is_same));
}

void sm_hands_over(arena& in, const act& it)
{
    (void)in.net.set_sm(static_cast<uint16_t>(spare_lids + it.a % 1000), static_cast<uint8_t>(it.b % 8));
}

using faults = embedded::fault_switches;
using effects = embedded::fault_effects;

} // namespace

const std::array<act_kind, act_kind_count> act_kinds = std::to_array<act_kind>({
    {"ask for a GID", 24, harm::none, 0, ask_gid, nullptr, "questions answered"},
    {"ask for an address", 24, harm::none, 0, ask_address, nullptr, "questions answered"},
    {"withdraw questions", 6, harm::none, 0, withdraw_some, nullptr, "questions withdrawn"},
    {"report", 24, harm::none, 0, report, nullptr, "reports of an HCA or more read"},
    {"control: rarp", 5, harm::none, 0, control_rarp, nullptr, "writes that sent a request"},
    {"control: garbage", 6, harm::none, 0, control_garbage, nullptr, "lines that the module answered"},
    {"control: sa_verify_period", 4, harm::none, 0, verify_period, nullptr, "new periods shown by a report"},
    {"rename", 10, harm::none, 0, rename, nullptr, "names taken"},
    {"readdress", 10, harm::none, 0, readdress, nullptr, "addresses taken"},
    {"insmod", 10, harm::none, 0, insmod, nullptr, "modules loaded"},
    {"rmmod", 8, harm::none, 0, rmmod, nullptr, "modules unloaded"},
    {"link down", 24, harm::none, 60 * second, link_goes_down, link_comes_up, "links that were up"},
    {"event storm", 4, harm::none, 0, event_storm, nullptr, "links that changed"},
    {"control: delete_ip", 3, harm::host, 0, delete_ip, nullptr, "writes that sent a request"},
    {"ask many at once", 3, harm::host, 0, ask_many, nullptr, "questions asked with 16 others open"},
    {"calls fail by chance", 5, harm::host, 120 * second, calls_fail_by_chance, calls_work, "calls that failed"},
    {"a call fails", 8, harm::host, 60 * second, one_call_fails, calls_work, "calls that failed"},
    {"signal", 8, harm::host, 30 * second, signal_a_task, clear_signals, "signals seen by their task"},
    switches<&faults::loss_percent, 60>("loss", 3, 120 * second, "datagrams lost", &effects::lost_by_chance),
    switches<&faults::duplicate_percent, 60>("duplication", 2, 120 * second, "datagrams that arrived twice",
                                             &effects::arrived_twice),
    switches<&faults::reorder_percent, 60>("reordering", 2, 120 * second, "datagrams overtaken", &effects::overtaken),
    switches<&faults::corrupt_percent, 20>("corruption", 2, 120 * second, "datagrams that arrived corrupted",
                                           &effects::arrived_corrupted),
    switches<&faults::latency_ticks, 60>("latency", 2, 120 * second, "datagrams delayed by latency",
                                         &effects::arrived_late),
    switches<&faults::jitter_ticks, 60>("jitter", 2, 120 * second, "datagrams delayed by jitter",
                                        &effects::arrived_jittered),
    switches<&faults::refuse_percent, 60>("refused sends", 2, 60 * second, "sends refused",
                                          &effects::sends_refused_by_chance),
    switches<&faults::sa_service_ticks, 30>("slow SA", 2, 60 * second, "requests kept waiting",
                                            &effects::requests_kept_waiting),
    switches<&faults::drop_next, 5>("drop some", 3, second, "datagrams dropped", &effects::dropped_next),
    switches<&faults::drop_next_answers, 5>("drop answers", 3, second, "answers dropped", &effects::answers_dropped),
    switches<&faults::queue_full>("full queues", 1, 20 * second, "sends refused", &effects::sends_refused_queue_full),
    switches<&faults::sa_silent>("silent SA", 2, 60 * second, "requests met by silence",
                                 &effects::requests_met_by_silence),
    switches<&faults::sa_busy>("busy SA", 2, 60 * second, "requests answered BUSY", &effects::requests_answered_busy),
    {"SA status", 4, harm::network, 20 * second, sa_answers_a_status, sa_answers_again,
     "requests answered with a status", &effects::requests_answered_status},
    {"amnesia", 1, harm::network, 0, sa_forgets_all, nullptr, "acts that lost records"},
    {"amnesia of one HCA", 2, harm::network, 0, sa_forgets_one, nullptr, "ports whose records were lost"},
    {"records of the past", 1, harm::network, 0, sa_comes_back_from_the_past, nullptr, "acts that changed the records"},
    {"SM hand-over", 2, harm::network, 0, sm_hands_over, nullptr, "requests to the SA's new LID",
     &effects::requests_after_hand_over},
});

} // namespace campaign
