// All kinds of acts, and their functions. Those of faults that never heal are in unhealed.cpp.
#include <algorithm>
#include <array>
#include <cstring>

#include "campaign/tested-fabric.h"
#include "campaign/unhealed.h"
#include "host/world/published.h"
#include "host/world/text.h"
#include "kernel/sync.h"

namespace campaign
{

namespace
{

constexpr uint16_t spare_lids = 0x1000; // no port has this LID or a higher one, so the SM may move there

// ---- acts of users: they ask, and read or write the control file ----

// Adds a question that the host is about to ask. If `act_kind` has a value, the answer counts as an effect of this kind
// of act.
question& new_question(node& node, std::optional<uint32_t> act_kind)
{
    ++node.fabric.counts.questions;
    return node.questions.emplace_back(question{.asker = node, .act_kind = act_kind, .begin_tick = node.fabric.now()});
}

// Returns an address that was given to some host. Sometimes returns an arbitrary one, which hardly ever belongs to a
// host.
uint32_t any_address(tested_fabric& fabric, uint32_t a)
{
    const std::vector<uint32_t>& addresses = fabric.nodes[a % fabric.nodes.size()].given_addresses;
    return a % 16 == 0 ? 0x0100000Au + a : addresses[(a >> 8) % addresses.size()];
}

// Returns the GID of some port. Sometimes returns one that no port has.
kq_gid_t any_gid(tested_fabric& fabric, uint32_t a)
{
    node& node = fabric.nodes[a % fabric.nodes.size()];
    fabric::hca& hca = *node.hcas[(a >> 8) % node.hcas.size()];
    const int port = 1 + static_cast<int>((a >> 16) % static_cast<uint32_t>(hca.port_count()));
    kq_gid_t gid = *world::parse_gid(embedded::text_of(hca.read_port(port).gids[0]));
    if (a % 16 == 0) ++gid.subnet; // no port has this prefix
    return gid;
}

void ask_gid(tested_fabric& fabric, const act& act)
{
    node& node = fabric.node_of(act);
    node.start("ask", [&node, ip = any_address(fabric, act.a), act] {
        ask_for_gid(new_question(node, act.kind), ip, act.b % 2 == 0);
    });
}

void ask_address(tested_fabric& fabric, const act& act)
{
    node& node = fabric.node_of(act);
    node.start("ask",
               [&node, gid = any_gid(fabric, act.a), act] { ask_for_address(new_question(node, act.kind), gid); });
}

void ask_path(tested_fabric& fabric, const act& act)
{
    node& node = fabric.node_of(act);
    node.start("ask path", [&node, gid = any_gid(fabric, act.a), act] {
        ask_for_path(new_question(node, act.kind), gid, act.b % 4 == 0);
    });
}

// Returns true if the host has more open questions than the module ats has datagrams for one HCA.
bool has_many_open(const node& node)
{
    constexpr ptrdiff_t pool_size = 16;
    return std::ranges::count_if(node.questions, [](const question& each) { return !each.is_settled(); }) > pool_size;
}

// Asks many questions, alternately for a GID and for an address.
void ask_many(tested_fabric& fabric, const act& act)
{
    node& node = fabric.node_of(act);
    for (uint32_t i = 0; i < 10 + act.b % 40; ++i) {
        const uint32_t a = act.a + (i << 8 | i);
        if (i % 2 == 0)
            node.start("ask", [&node, ip = any_address(fabric, a), act] {
                ask_for_gid(new_question(node, std::nullopt), ip, act.b % 2 == 0);
                node.fabric.mark(act, has_many_open(node));
            });
        else
            node.start("ask", [&node, gid = any_gid(fabric, a), act] {
                ask_for_address(new_question(node, std::nullopt), gid);
                node.fabric.mark(act, has_many_open(node));
            });
    }
}

void withdraw_some(tested_fabric& fabric, const act& act)
{
    node& node = fabric.node_of(act);
    node.start("withdraw", [&node, act] {
        for (size_t i = node.questions.size(); i-- > 0 && i + 4 > node.questions.size();)
            if (!node.questions[i].is_closed) node.fabric.mark(act, withdraw(node.questions[i]));
    });
}

void report(tested_fabric& fabric, const act& act)
{
    node& node = fabric.node_of(act);
    node.start("report", [&node, act] { node.fabric.mark(act, !node.read_control().empty()); });
}

// Writes to the control file. Returns true if the write succeeded and the calling task sent a request during the write.
bool write_makes_request(node& node, const std::string& text)
{
    const uint64_t old_requests = node.fabric.wire.requests_of_this_task();
    return node.write_control(text) && node.fabric.wire.requests_of_this_task() > old_requests;
}

void control_rarp(tested_fabric& fabric, const act& act)
{
    node& node = fabric.node_of(act);
    node.start("control", [&node, act, gid = any_gid(fabric, act.a)] {
        node.fabric.mark(act, write_makes_request(node, "rarp " + world::format_gid(gid)));
    });
}

// Writes commands with wrong arguments, unknown words and arbitrary bytes to the control file. Some texts are longer
// than the module reads. None of these writes changes the host's registration, but some may switch verification off.
void control_garbage(tested_fabric& fabric, const act& act)
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
    for (uint32_t i = 0, bits = act.b; i < act.a % 7; ++i, bits >>= 4) text += std::string(words[bits % 15]) + " ";
    if (act.a % 11 == 0) text += std::string(act.b % 5000, static_cast<char>('!' + act.b % 90));
    if (act.a % 5 == 0) text += '\n';
    node& node = fabric.node_of(act);
    node.longest_period = 180;
    node.verification_may_be_off = true;
    node.start("control", [&node, act, text] {
        std::string output;
        node.fabric.mark(act, node.write_control(text, &output) && !output.empty());
    });
}

void verify_period(tested_fabric& fabric, const act& act)
{
    static constexpr int periods[] = {0, -5, 10, 20, 30, 60, 90}, skews[] = {0, 1, 10, 100, 250, -7};
    node& node = fabric.node_of(act);
    node.longest_period = 180; // seconds: the longest of the periods, 90, and a skew of 100 percent of it
    node.verification_may_be_off = true;
    const int period = periods[act.a % 7], skew = skews[act.b % 6];
    node.start("control", [&node, act, period, skew] {
        if (node.write_control("sa_verify_period " + std::to_string(period) + " " + std::to_string(skew)))
            node.expect_verification_settings(act,
                                              {{"period", std::max(period, 0)}, {"skew", std::clamp(skew, 0, 100)}});
    });
}

// ---- acts of the administrator; after most of them, the SA must soon have the right records ----

void expect_truth_soon(node& node)
{
    node.disturbed_tick = node.fabric.now();
    node.start("check", [&node, act_tick = node.fabric.now()] { check_promptly(node, act_tick); });
}

// Writes a line to the control file. Returns true if the write succeeded and the module printed no failure.
bool write_succeeds(node& node, const std::string& line)
{
    std::string output;
    return node.write_control(line, &output) && output.find("FAIL") == std::string::npos;
}

// Sets the host's name. `way` selects the control file or the exported function. Returns true if the module reported
// success.
bool give_name(node& node, const std::string& name, uint32_t way)
{
    if (way % 2 == 0) return write_succeeds(node, "set_host_name " + name);
    const kernel::held_symbol call(node.machine().modules, "ats", "ats_sa_set_hostname");
    return call && call.as<int32_t (*)(const char*)>()(name.c_str()) == 0;
}

// Sets the address of all HCAs. `way` selects one of four ways: the control file or one of three functions of the
// module. Returns true if the module reported success.
bool give_address(node& node, uint32_t ip, uint32_t way)
{
    using set_address = int32_t (*)(uint32_t);
    using set_address_text = int32_t (*)(const char*);
    const std::string text = world::format_ipv4(ip);
    switch (way % 4) {
    case 0:
        return write_succeeds(node, "set_ip_addrs " + text);
    case 1: {
        const world::published<set_address> call(node.machine(), "ATS_SA_SET_IP_ADDR");
        return call && (*call)(ip) == 0;
    }
    case 2: {
        const kernel::held_symbol call(node.machine().modules, "ats", "ats_sa_set_ip_addrs");
        return call && call.as<set_address>()(ip) == 0;
    }
    default: {
        const kernel::held_symbol call(node.machine().modules, "ats", "ats_sa_set_ip_addrs_str");
        return call && call.as<set_address_text>()(text.c_str()) == 0;
    }
    }
}

void rename(tested_fabric& fabric, const act& act)
{
    node& node = fabric.node_of(act);
    node.start("rename", [&node, act] {
        const std::string name = node.next_name(act.b);
        const uint64_t begin_tick = node.fabric.now();
        node.change_identity([&] { return node.fabric.mark(act, give_name(node, name, act.a)); },
                             [&] {
                                 node.name = name;
                                 node.is_name_certain = true;
                                 node.name_tick = begin_tick;
                             });
        expect_truth_soon(node);
    });
}

void readdress(tested_fabric& fabric, const act& act)
{
    node& node = fabric.node_of(act);
    node.start("readdress", [&node, act] {
        const uint32_t ip = node.next_address();
        node.change_identity([&] { return node.fabric.mark(act, give_address(node, ip, act.a)); },
                             [&] {
                                 node.address.assign(node.hcas.size(), ip);
                                 node.is_address_certain = true;
                             });
        expect_truth_soon(node);
    });
}

// Writes "delete_ip" with a new address. The module deletes the first HCA's record. At the next verification, the
// module sets a record with the new address.
void delete_ip(tested_fabric& fabric, const act& act)
{
    node& node = fabric.node_of(act);
    node.start("control", [&node, act] {
        const uint32_t ip = node.next_address();
        node.change_identity(
            [&] { return node.fabric.mark(act, write_makes_request(node, "delete_ip " + world::format_ipv4(ip))); },
            [] {});
    });
}

const char* any_module(uint32_t a)
{
    static const char* const modules[] = {"ats", "ats", "ibat", "ucm"};
    return modules[a % 4];
}

void insmod(tested_fabric& fabric, const act& act)
{
    node& node = fabric.node_of(act);
    node.start("insmod", [&node, act] {
        if (node.fabric.mark(act, node.load(any_module(act.a)))) expect_truth_soon(node);
    });
}

void rmmod(tested_fabric& fabric, const act& act)
{
    node& node = fabric.node_of(act);
    node.start("rmmod", [&node, act] { node.fabric.mark(act, node.unload(any_module(act.a))); });
}

// ---- links ----

fabric::hca& any_hca(node& node, const act& act)
{
    return *node.hcas[act.a % node.hcas.size()];
}

// Sets the state of a link. Returns true if the state has changed.
bool change_link(tested_fabric& fabric, const act& act, bool is_up)
{
    node& node = fabric.node_of(act);
    fabric::hca& hca = any_hca(node, act);
    const int port = 1 + static_cast<int>(act.b % static_cast<uint32_t>(hca.port_count()));
    const fabric::link_state old_state = hca.read_port(port).state;
    if (is_up)
        (void)fabric.subnet.link_up(node.host.name(), hca.name(), port);
    else
        (void)fabric.subnet.link_down(node.host.name(), hca.name(), port);
    ++fabric.counts.faults;
    expect_truth_soon(node);
    return hca.read_port(port).state != old_state;
}

void link_goes_down(tested_fabric& fabric, const act& act)
{
    fabric.mark(act, change_link(fabric, act, false));
}

void link_comes_up(tested_fabric& fabric, const act& act)
{
    change_link(fabric, act, true);
}

// Changes the links of one HCA many times in one tick. At the end, all links of the HCA are up.
void event_storm(tested_fabric& fabric, const act& act)
{
    auto change = act;
    for (uint32_t i = 0; i < 2 + act.a % 60; ++i) {
        fabric.mark(act, change_link(fabric, change, change.b >> 31));
        change.b = change.b * 0x9E3779B1 + 1;
    }
    for (change.b = 0; change.b < 2; ++change.b) change_link(fabric, change, true);
}

// ---- faults of a host ----

// Disarms the host's fault injector. If an act had armed it, the calls that failed count as effects of this act.
void end_failing_calls(node& node)
{
    kernel::fault_injector& faults = node.machine().faults;
    if (node.failing_calls) {
        node.fabric.counts.marks[node.failing_calls->kind] += faults.failures();
        node.fabric.counts.faults += faults.failures();
    }
    node.failing_calls.reset();
    faults.disarm();
}

// Returns the host's fault injector, so that `act` can arm it. First ends an earlier act that still uses the injector.
kernel::fault_injector& begin_failing_calls(node& node, const act& act)
{
    end_failing_calls(node);
    node.failing_calls = act;
    node.may_know_wrong_ports = true;
    return node.machine().faults;
}

void calls_fail_by_chance(tested_fabric& fabric, const act& act)
{
    begin_failing_calls(fabric.node_of(act), act).fail_some(1 + act.a % 40, act.b);
}

void one_call_fails(tested_fabric& fabric, const act& act)
{
    static const char* const calls[] = {"gsi_dtgrm_pool_get",   "gsi_post_send_dtgrm",       "kq_port_query",
                                        "kq_get_port_gid_tbl",  "kq_get_port_partition_tbl", "kmalloc",
                                        "gsi_deregister_class", "down_interruptible",        "copy_from_user"};
    begin_failing_calls(fabric.node_of(act), act).fail_calls(calls[act.a % 9], 1 + act.b % 30);
}

void calls_work(tested_fabric& fabric, const act& act)
{
    end_failing_calls(fabric.node_of(act));
}

void signal_a_task(tested_fabric& fabric, const act& act)
{
    std::vector<exec::task*> tasks;
    for (exec::task* each : fabric.simulation->tasks())
        if (each->home == &fabric.node_of(act).machine()) tasks.push_back(each);
    if (!tasks.empty()) exec::send_signal(*tasks[act.a % tasks.size()]);
}

void clear_signals(tested_fabric& fabric, const act& act)
{
    for (exec::task* each : fabric.simulation->tasks())
        if (each->home == &fabric.node_of(act).machine()) exec::clear_signal(*each);
    fabric.counts.marks[act.kind] += fabric.node_of(act).machine().signals_seen.exchange(0);
}

// ---- faults of the network and of the SA ----

// Makes a kind of act that sets a switch of fault_switches at its beginning and clears it at its end. The switch is a
// bool or a number. The act sets it to a value from 1 to `highest`.
template <auto fault_switch, uint32_t highest = 1>
act_kind switches(const char* name, int weight, uint64_t longest_ticks, const char* mark,
                  uint64_t embedded::fault_effects::*effect)
{
    return {name,
            weight,
            harm::network,
            longest_ticks,
            [](tested_fabric& fabric, const act& act) { fabric.subnet.faults.*fault_switch = 1 + act.a % highest; },
            [](tested_fabric& fabric, const act&) { fabric.subnet.faults.*fault_switch = 0; },
            mark,
            effect};
}

act_kind unhealed(const char* name, void (*begin)(tested_fabric&, const act&))
{
    return {name, 1, harm::none, 0, begin, nullptr, "datagrams lost", nullptr, &plan_options::has_unhealed_faults};
}

void sa_answers_a_status(tested_fabric& fabric, const act& act)
{
    const uint16_t status = act.b % 3 == 0 ? static_cast<uint16_t>(act.a) : static_cast<uint16_t>((act.a % 9) << 8);
    fabric.subnet.faults.answer_with(status, 1 + act.b % 50);
}

void sa_answers_again(tested_fabric& fabric, const act&)
{
    fabric.subnet.faults.sa_status_count = 0;
}

void sa_forgets_all(tested_fabric& fabric, const act& act)
{
    fabric.mark(act, fabric.subnet.forget_all() > 0);
}

void sa_forgets_one(tested_fabric& fabric, const act& act)
{
    node& node = fabric.node_of(act);
    fabric::hca& hca = any_hca(node, act);
    for (int port = 1; port <= hca.port_count(); ++port)
        fabric.mark(act, fabric.subnet.forget(hca.read_port(port).gids[0]) > 0);
}

// The SA restarts with the records that it had at an earlier minute. The act has an effect if these records differ from
// the present ones.
void sa_comes_back_from_the_past(tested_fabric& fabric, const act& act)
{
    const std::vector<ib_service_record_v2_t> old_records = fabric.subnet.save_records();
    fabric.subnet.restore_records(fabric.kept_records[act.a % fabric.kept_records.size()]);
    const auto is_same = [](const auto& a, const auto& b) { return memcmp(&a, &b, sizeof a) == 0; };
    fabric.mark(act, !std::ranges::equal(old_records, fabric.subnet.save_records(), is_same));
}

void sm_hands_over(tested_fabric& fabric, const act& act)
{
    (void)fabric.subnet.set_sm(static_cast<uint16_t>(spare_lids + act.a % 1000), static_cast<uint8_t>(act.b % 8));
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
    {"ask for a path", 48, harm::none, 0, ask_path, nullptr, "paths found", nullptr, &plan_options::asks_for_paths},
    unhealed("host cut off", cut_host_off),
    unhealed("port that never answers", cut_port_off),
    unhealed("one way of a link lost", cut_one_way),
    unhealed("partition", cut_partition_off),
    {"check in spite of cuts", 0, harm::none, 0, check_the_rest, nullptr, "healthy hosts that found another one",
     nullptr, &plan_options::has_unhealed_faults},
    {"priorities", 0, harm::none, 0, nullptr, nullptr, "tasks overtaken at a change of priority", nullptr,
     &plan_options::has_priorities}, // not an act: it lasts for the whole run, so no function begins it
});

} // namespace campaign
