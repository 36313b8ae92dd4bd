// Everything that can happen in a campaign.
#include <array>
#include <cstring>

#include "campaign/arena.h"
#include "host/world/published.h"
#include "host/world/text.h"
#include "kernel/sync.h"

namespace campaign
{

namespace
{

constexpr uint64_t second = 1000;
constexpr uint16_t spare_lids = 0x1000; // LIDs from here on are no port's

// ---- what users do ----

question& new_question(node& at)
{
    ++at.in.done.questions;
    return at.questions.emplace_back(question{.asked_at = at, .begun_tick = at.in.now()});
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
    node& at = in.host(it);
    at.start("ask", [&at, ip = any_address(in, it.a), b = it.b] { ask_for_gid(new_question(at), ip, b % 2 == 0); });
}

void ask_address(arena& in, const act& it)
{
    node& at = in.host(it);
    at.start("ask", [&at, gid = any_gid(in, it.a)] { ask_for_address(new_question(at), gid); });
}

// More at a time than a pool has datagrams.
void ask_many(arena& in, const act& it)
{
    for (uint32_t i = 0; i < 10 + it.b % 40; ++i) {
        act one = it;
        one.a += i << 8 | i;
        (i % 2 == 0 ? ask_gid : ask_address)(in, one);
    }
}

void withdraw_some(arena& in, const act& it)
{
    node& at = in.host(it);
    at.start("withdraw", [&at] {
        for (size_t i = at.questions.size(); i-- > 0 && i + 4 > at.questions.size();)
            if (!at.questions[i].is_closed) withdraw(at.questions[i]);
    });
}

void report(arena& in, const act& it)
{
    node& at = in.host(it);
    at.start("report", [&at] { at.read_control(); });
}

void write_line(node& at, const std::string& text)
{
    at.start("control", [&at, text] { at.write_control(text); });
}

void control_rarp(arena& in, const act& it)
{
    write_line(in.host(it), "rarp " + world::format_gid(any_gid(in, it.a)));
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
    in.host(it).longest_period = 180;
    in.host(it).may_not_verify = true;
    write_line(in.host(it), text);
}

void verify_period(arena& in, const act& it)
{
    static constexpr int periods[] = {0, -5, 10, 20, 30, 60, 90}, skews[] = {0, 1, 10, 100, 250, -7};
    node& at = in.host(it);
    at.longest_period = 180; // the longest of these, twice
    at.may_not_verify = true;
    write_line(at, "sa_verify_period " + std::to_string(periods[it.a % 7]) + " " + std::to_string(skews[it.b % 6]));
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
        at.change_identity([&] { return give_name(at, name, it.a); },
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
        at.change_identity([&] { return give_address(at, ip, it.a); },
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
    at.start("control", [&at] {
        const uint32_t ip = at.next_address();
        at.change_identity([&] { return at.write_control("delete_ip " + world::format_ipv4(ip)); }, [] {});
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
        if (at.load(any_module(it.a))) expect_truth_soon(at);
    });
}

void rmmod(arena& in, const act& it)
{
    node& at = in.host(it);
    at.start("rmmod", [&at, it] { at.unload(any_module(it.a)); });
}

// ---- links ----

fabric::hca& any_hca(node& at, const act& it)
{
    return *at.hcas[it.a % at.hcas.size()];
}

void change_link(arena& in, const act& it, bool up)
{
    node& at = in.host(it);
    fabric::hca& hca = any_hca(at, it);
    const int port = 1 + static_cast<int>(it.b % static_cast<uint32_t>(hca.port_count()));
    (void)(up ? in.net.link_up(at.host.name(), hca.name(), port) : in.net.link_down(at.host.name(), hca.name(), port));
    ++in.done.faults;
    expect_truth_soon(at);
}
void link_goes_down(arena& in, const act& it)
{
    change_link(in, it, false);
}
void link_comes_up(arena& in, const act& it)
{
    change_link(in, it, true);
}

// Many events in one tick; the links are up behind them.
void event_storm(arena& in, const act& it)
{
    act one = it;
    for (uint32_t i = 0; i < 2 + it.a % 60; ++i, one.b = one.b * 0x9E3779B1 + 1) change_link(in, one, one.b >> 31);
    for (one.b = 0; one.b < 2; ++one.b) change_link(in, one, true);
}

// ---- faults of a host ----

void calls_fail_by_chance(arena& in, const act& it)
{
    in.host(it).may_be_misread = true;
    in.host(it).machine().faults.fail_some(1 + it.a % 40, it.b);
}

void one_call_fails(arena& in, const act& it)
{
    static const char* const calls[] = {"gsi_dtgrm_pool_get",   "gsi_post_send_dtgrm",       "kq_port_query",
                                        "kq_get_port_gid_tbl",  "kq_get_port_partition_tbl", "kmalloc",
                                        "gsi_deregister_class", "down_interruptible",        "copy_from_user"};
    in.host(it).may_be_misread = true;
    in.host(it).machine().faults.fail_calls(calls[it.a % 9], 1 + it.b % 30);
}

void calls_work(arena& in, const act& it)
{
    node& at = in.host(it);
    at.failed_calls += at.machine().faults.failures();
    at.machine().faults.disarm();
}

void signal_a_task(arena& in, const act& it)
{
    std::vector<kernel::task*> own;
    for (kernel::task* each : in.sim->tasks())
        if (each->home == &in.host(it).machine()) own.push_back(each);
    if (!own.empty()) kernel::send_signal(*own[it.a % own.size()]);
}

void clear_signals(arena& in, const act& it)
{
    for (kernel::task* each : in.sim->tasks())
        if (each->home == &in.host(it).machine()) kernel::clear_signal(*each);
}

// ---- faults of the network and of the SA ----

// A switch of the subnet's that is a number: set to 1 up to `most` while the act lasts.
template <std::atomic<uint32_t> embedded::fault_switches::*knob, uint32_t most>
act_kind turns(const char* name, int weight, uint64_t longest_ticks)
{
    return {name,
            weight,
            harm::network,
            longest_ticks,
            [](arena& in, const act& it) { in.net.faults.*knob = 1 + it.a % most; },
            [](arena& in, const act&) { in.net.faults.*knob = 0; }};
}

template <std::atomic<bool> embedded::fault_switches::*knob>
act_kind switches(const char* name, int weight, uint64_t longest_ticks)
{
    return {name,
            weight,
            harm::network,
            longest_ticks,
            [](arena& in, const act&) { in.net.faults.*knob = true; },
            [](arena& in, const act&) { in.net.faults.*knob = false; }};
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

void sa_forgets_all(arena& in, const act&)
{
    in.net.forget_all();
}

void sa_forgets_one(arena& in, const act& it)
{
    node& at = in.host(it);
    fabric::hca& hca = any_hca(at, it);
    for (int port = 1; port <= hca.port_count(); ++port) in.net.forget(hca.read_port(port).gids[0]);
}

void sa_comes_back_from_the_past(arena& in, const act& it)
{
    in.net.restore_records(in.kept_records[it.a % in.kept_records.size()]);
}

void sm_hands_over(arena& in, const act& it)
{
    (void)in.net.set_sm(static_cast<uint16_t>(spare_lids + it.a % 1000), static_cast<uint8_t>(it.b % 8));
}

using faults = embedded::fault_switches;

} // namespace

const std::vector<act_kind> act_kinds = {
    {"ask for a GID", 24, harm::none, 0, ask_gid, nullptr},
    {"ask for an address", 24, harm::none, 0, ask_address, nullptr},
    {"withdraw questions", 6, harm::none, 0, withdraw_some, nullptr},
    {"report", 24, harm::none, 0, report, nullptr},
    {"control: rarp", 5, harm::none, 0, control_rarp, nullptr},
    {"control: garbage", 6, harm::none, 0, control_garbage, nullptr},
    {"control: sa_verify_period", 4, harm::none, 0, verify_period, nullptr},
    {"rename", 10, harm::none, 0, rename, nullptr},
    {"readdress", 10, harm::none, 0, readdress, nullptr},
    {"insmod", 10, harm::none, 0, insmod, nullptr},
    {"rmmod", 8, harm::none, 0, rmmod, nullptr},
    {"link down", 24, harm::none, 60 * second, link_goes_down, link_comes_up},
    {"event storm", 4, harm::none, 0, event_storm, nullptr},
    {"control: delete_ip", 3, harm::host, 0, delete_ip, nullptr},
    {"ask many at once", 3, harm::host, 0, ask_many, nullptr},
    {"calls fail by chance", 5, harm::host, 120 * second, calls_fail_by_chance, calls_work},
    {"a call fails", 8, harm::host, 60 * second, one_call_fails, calls_work},
    {"signal", 8, harm::host, 30 * second, signal_a_task, clear_signals},
    turns<&faults::loss_percent, 60>("loss", 3, 120 * second),
    turns<&faults::duplicate_percent, 60>("duplication", 2, 120 * second),
    turns<&faults::reorder_percent, 60>("reordering", 2, 120 * second),
    turns<&faults::corrupt_percent, 20>("corruption", 2, 120 * second),
    turns<&faults::latency_ticks, 60>("latency", 2, 120 * second),
    turns<&faults::jitter_ticks, 60>("jitter", 2, 120 * second),
    turns<&faults::refuse_percent, 60>("refused sends", 2, 60 * second),
    turns<&faults::sa_service_ticks, 30>("slow SA", 2, 60 * second),
    turns<&faults::drop_next, 5>("drop some", 3, second),
    turns<&faults::drop_next_answers, 5>("drop answers", 3, second),
    switches<&faults::queue_full>("full queues", 1, 20 * second),
    switches<&faults::sa_silent>("silent SA", 2, 60 * second),
    switches<&faults::sa_busy>("busy SA", 2, 60 * second),
    {"SA status", 4, harm::network, 20 * second, sa_answers_a_status, sa_answers_again},
    {"amnesia", 1, harm::network, 0, sa_forgets_all, nullptr},
    {"amnesia of one HCA", 2, harm::network, 0, sa_forgets_one, nullptr},
    {"records of the past", 1, harm::network, 0, sa_comes_back_from_the_past, nullptr},
    {"SM hand-over", 2, harm::network, 0, sm_hands_over, nullptr},
};

} // namespace campaign
