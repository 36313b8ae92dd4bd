// Checks the service (the module ats on each host): the SA must have the right records of the hosts, and lookups must
// return them. Unloading must leave nothing behind.
#include <algorithm>
#include <cstring>
#include <random>

#include "campaign/tested-fabric.h"
#include "host/peers/ibat-exports.h"
#include "host/stack/gsi-service.h"
#include "host/world/published.h"
#include "host/world/text.h"
#include "kernel/sync.h"
#include "records/host-record.h"

namespace campaign
{

namespace
{

constexpr uint64_t soon_ticks = 600;            // maximum time until a change reaches the SA
constexpr uint64_t verification_ticks = 60'600; // default maximum time between two verifications
constexpr uint64_t answer_ticks = 3 * second;   // maximum time until a question is settled
constexpr uint64_t calm_ticks = 30 * second;    // maximum time until a running call ends
constexpr size_t lookups_per_host = 6;

using records_t = std::vector<ib_service_record_v2_t>;
using embedded::view_of;

// Faults excuse some flaws. The service verifies only the address of its record, so other fields may stay wrong after a
// fault.
enum class excuse {
    none,             // nothing excuses the flaw
    harm_since_named, // a fault after the host got its name: the SA may still have an earlier name
    false_record,     // the host may have misread its port, or the network may have corrupted its SubnAdmSet
};

// A difference between the expected and the actual state of a host: in the host's own report, or in the SA's record of
// an active port.
struct flaw {
    std::string text; // describes the flaw; empty if there is none
    excuse possible_excuse = excuse::none;
    campaign::mismatch mismatch = {};
};

std::string content_of(const embedded::service_record_view& record)
{
    return record.ipv4 + " " + record.host_name;
}

// Returns true if faults that happened in this run excuse the flaw.
bool is_excused(node& node, const flaw& flaw)
{
    const bool was_harmed =
        !node.fabric.network.was_quiet_since(node.name_tick) || !node.harm().was_quiet_since(node.name_tick);
    return (flaw.possible_excuse == excuse::harm_since_named && was_harmed) ||
           (flaw.possible_excuse == excuse::false_record &&
            (node.fabric.network.has_done_harm || node.may_know_wrong_ports));
}

// Returns true if a host that registers this content would send exactly these bytes.
bool is_as_registered(const ib_service_record_v2_t& record)
{
    const ib_service_record_v2_t registered = records::encode(records::decode(record));
    return memcmp(&registered, &record, sizeof record) == 0;
}

// Compares the SA's record of `gid` with the expected one. `records` are all records of the SA. `ipv4` is the address
// that the host reports for the GID. Returns the flaw; its text is empty if there is none.
flaw flaw_of(node& node, size_t hca, const std::string& gid, const std::string& ipv4, const records_t& records)
{
    const auto has_gid = [&](const auto& each) { return view_of(each).gid == gid; };
    const auto record = std::ranges::find_if(records, has_gid);
    if (record == records.end())
        return {"there is no record of " + gid, excuse::none, {"a record of " + gid + " with " + ipv4, "none"}};
    if (std::ranges::count_if(records, has_gid) > 1)
        return {"there are several records of " + gid, excuse::false_record, {"one record of " + gid, "several"}};
    const embedded::service_record_view view = view_of(*record);
    if (view.ipv4 != ipv4)
        return {gid + " has the address " + view.ipv4 + ", not " + ipv4,
                excuse::none,
                {ipv4 + ", which the host reports for " + gid, "the SA's record: " + content_of(view)}};
    const std::string given_address = world::format_ipv4(node.address[hca]);
    if (node.is_address_certain && ipv4 != given_address)
        return {"the host has the address " + ipv4 + ", not " + given_address,
                excuse::none,
                {given_address + ", which was given to the host last", "the host's report: " + ipv4}};
    if (std::ranges::find(node.given_addresses, *world::parse_ipv4(view.ipv4)) == node.given_addresses.end())
        return {"nobody gave the address " + view.ipv4};
    if (view.p_key != node.hcas[hca]->read_port(1).p_keys[0] || !is_as_registered(*record))
        return {"the record of " + gid + " has a wrong P_Key or a wrong constant field", excuse::false_record};
    if (node.is_name_certain && view.host_name != node.name.substr(0, 30))
        return {gid + " has the name " + view.host_name + ", not " + node.name,
                excuse::harm_since_named,
                {"the name " + node.name.substr(0, 30), "the SA's record: " + content_of(view)}};
    if (std::ranges::find(node.given_names, view.host_name) == node.given_names.end())
        return {"nobody gave the name " + view.host_name, excuse::false_record};
    return {};
}

// The result of examine(): the GIDs for which the host should have records, and all flaws that were found.
struct findings {
    std::vector<std::string> gids;
    std::vector<flaw> flaws;
};

// The HCAs whose records examine() compares.
enum class scope {
    healthy_hcas,  // HCAs without a port that was cut off for good
    healthy_ports, // HCAs whose active port was not cut off for good
};

// Compares the host's own report with the links, and with the SA's records of the HCAs in `scope`. Call it in a task of
// the host. Returns empty findings if the module is not loaded.
findings examine(node& node, scope scope)
{
    findings findings;
    const console::json report = node.read_control();
    if (report.is_null()) return findings;
    const records_t records = node.fabric.subnet.save_records();
    if (report.size() != node.hcas.size()) findings.flaws.push_back({"it does not serve each HCA"});
    for (size_t i = 0; i < report.size(); ++i) {
        const console::json& active = report[i]["active_port"];
        ++node.fabric.counts.truths;
        if (active.is_null() == node.has_link(i)) {
            findings.flaws.push_back(active.is_null() ? flaw{"no port is active in spite of a link",
                                                             excuse::none,
                                                             {"an active port", "none in the host's report"}}
                                                      : flaw{"a port is active without a link",
                                                             excuse::none,
                                                             {"no active port", "port " + active.dump()}});
        } else if (!active.is_null()) {
            const bool is_cut_off =
                scope == scope::healthy_hcas ? node.is_cut_off(i) : node.is_cut_off(i, active.get<int>());
            if (is_cut_off) continue;
            const console::json& port = report[i]["ports"][active.get<size_t>() - 1];
            findings.gids.push_back(port["gid"]);
            const flaw flaw = flaw_of(node, i, port["gid"], port["address"], records);
            if (!flaw.text.empty()) findings.flaws.push_back(flaw);
        }
    }
    return findings;
}

[[noreturn]] void fail(node& node, const std::string& fault, const mismatch& mismatch = {})
{
    node.fabric.violate(node.host.name() + ": " + fault, mismatch);
}

// ---- checks at the end of a run ----

// Brings all links up. If an act may have done harm, also moves the SM. Then waits for calm_ticks. Reports a violation
// if a task of an act has not ended by then.
void end_faults(tested_fabric& fabric)
{
    const bool queries_may_have_failed =
        std::ranges::any_of(fabric.nodes, [](node& each) { return each.harm().has_done_harm; });
    for (node& each : fabric.nodes)
        for (fabric::hca* hca : each.hcas)
            for (int port = 1; port <= hca->port_count(); ++port)
                (void)fabric.subnet.link_up(each.host.name(), hca->name(), port);
    // If the query of a port has failed, the service queries the port again only at the next event. An SM change is
    // such an event.
    if (queries_may_have_failed || fabric.network.has_done_harm) (void)fabric.subnet.set_sm(0x2FFF, 0);
    fabric.simulation->run_for(calm_ticks);
    for (node& each : fabric.nodes) {
        each.reap();
        if (each.has_tasks()) fabric.violate("a task does not end:\n" + fabric.simulation->report());
    }
}

// About a quarter of the hosts on which ats is not loaded stay as they are. On all other hosts, loads the missing
// modules and sets the default verification period. Waits until the longest earlier period is over.
void bring_hosts_up(tested_fabric& fabric)
{
    uint64_t longest_period = 0;
    for (node& each : fabric.nodes) {
        each.machine().enter("insmod", [&] {
            // If ats could not list the HCAs when it was loaded, it serves none. Then ats must be loaded again.
            if (each.may_know_wrong_ports && each.read_control() == console::json::array()) each.unload("ats");
            if (!each.is_live() && (fabric.plan.seed + each.number) % 4 == 0) return;
            for (const char* module : {"ibat", "ucm", "ats"})
                if (!each.machine().modules.is_loaded(module)) each.load(module);
            if (!each.is_live()) fail(each, "it does not start, although nothing fails");
            each.write_control("sa_verify_period 60 1");
        });
        longest_period = std::max(longest_period, each.longest_period);
    }
    fabric.simulation->run_for(longest_period * second);
}

struct hca_of_node {
    campaign::node& node;
    size_t hca;
};

hca_of_node owner_of(tested_fabric& fabric, const std::string& gid)
{
    for (node& each : fabric.nodes)
        for (size_t hca = 0; hca < each.hcas.size(); ++hca)
            for (int port = 1; port <= each.hcas[hca]->port_count(); ++port)
                if (embedded::text_of(each.hcas[hca]->read_port(port).gids[0]) == gid) return {each, hca};
    fabric.violate("the SA holds a record of " + gid + ", which no port has");
}

// Compares the SA's records with the expected ones. If `to_forget` is not null, allows excused flaws, and appends the
// GIDs of wrong or left-over records to `to_forget`. If it is null, allows no flaw. In both cases, a record of an HCA
// with a port that is cut off may be left over.
void compare_records(tested_fabric& fabric, std::vector<std::string>* to_forget)
{
    std::vector<std::string> true_gids;
    for (node& each : fabric.nodes) {
        if (!each.is_live()) continue;
        findings findings;
        each.machine().enter("check", [&] { findings = examine(each, scope::healthy_ports); });
        for (const flaw& flaw : findings.flaws)
            if (!to_forget || !is_excused(each, flaw)) fail(each, flaw.text, flaw.mismatch);
        if (findings.flaws.empty()) true_gids.insert(true_gids.end(), findings.gids.begin(), findings.gids.end());
    }
    for (const ib_service_record_v2_t& raw : fabric.subnet.save_records()) {
        const embedded::service_record_view record = view_of(raw);
        if (std::ranges::find(true_gids, record.gid) != true_gids.end() && is_as_registered(raw)) continue;
        const auto& [owner, hca] = owner_of(fabric, record.gid);
        if (owner.is_cut_off(hca)) {
            // A port of this HCA is cut off, so the host may be unable to delete or correct the record. If the HCA has
            // changed to a healthy port, and the SA loses the record, the host registers a right one.
            if (to_forget) to_forget->push_back(record.gid);
            continue;
        }
        if (!to_forget || !(fabric.network.has_done_harm || owner.harm().has_done_harm || owner.may_have_left_records))
            fabric.violate(
                "the SA still holds a record of " + record.gid + ", " + record.host_name,
                {"no record of " + record.gid + ", or a right one", "the SA's record: " + content_of(record)});
        to_forget->push_back(record.gid);
    }
}

void forget(tested_fabric& fabric, const std::vector<std::string>& gids)
{
    for (const std::string& text : gids) {
        const wire_gid_t gid = to_wire(*world::parse_gid(text));
        fabric.subnet.forget(std::to_array(gid.bytes));
    }
}

// Asks a question with `ask`, and runs the simulation until the question is settled, at most for `answer_ticks`.
const question& ask_and_wait(node& node, const std::function<void(question&)>& ask)
{
    auto& question = node.questions.emplace_back(
        campaign::question{.asker = node, .act_kind = std::nullopt, .begin_tick = node.fabric.now()});
    node.machine().enter("ask", [&] { ask(question); });
    const uint64_t deadline_tick = node.fabric.now() + answer_ticks;
    while (!question.is_settled() && node.fabric.now() < deadline_tick) node.fabric.simulation->run_for(1);
    ++node.fabric.counts.questions;
    ++node.fabric.counts.truths;
    return question;
}

ibat_stat_t status_of(const question& question)
{
    return question.return_status == ibat_stat_pending ? question.status : question.return_status;
}

// Returns true if the answer contains an address or a GID. The fault fault_switches::answer_with() can make the SA
// answer with status 0 although it has not served the request. Such an answer contains neither.
bool has_answer(const question& question)
{
    if (status_of(question) != ibat_stat_ok) return false;
    return question.is_by_gid ? question.ip != 0 : !(question.gid == kq_gid_t{});
}

// Flushes the cache of every host that has ats loaded and is not cut off. Then makes the host look up some of the SA's
// records, by address and by GID. If the plan has paths, the host also looks up the paths to their GIDs. If two HCAs
// share an address, the SA has two records of it. It then answers that there are too many records, and returns none.
void compare_lookups(tested_fabric& fabric)
{
    std::mt19937_64 dice(fabric.plan.seed);
    const std::vector<embedded::service_record_view> records = fabric.subnet.service_records();
    if (records.empty()) return;
    for (node& node : fabric.nodes) {
        if (!node.is_live() || node.is_cut_off()) continue;
        node.machine().enter("flush",
                             [&node] { (**world::published<ibat_flush_fn_t>(node.machine(), "ibat_flush_fn"))(); });
        for (size_t i = 0; i < lookups_per_host; ++i) {
            const embedded::service_record_view& record = records[dice() % records.size()];
            const uint32_t ip = *world::parse_ipv4(record.ipv4);
            const kq_gid_t gid = *world::parse_gid(record.gid);
            const bool is_shared = std::ranges::count(records, record.ipv4, &embedded::service_record_view::ipv4) > 1;
            const question& ip_question =
                ask_and_wait(node, [&](question& question) { ask_for_gid(question, ip, true); });
            const bool is_right = is_shared ? status_of(ip_question) == ibat_stat_not_found
                                            : status_of(ip_question) == ibat_stat_ok && ip_question.gid == gid;
            if (!is_right)
                fail(node,
                     record.ipv4 + " is " + world::format_gid(ip_question.gid) + ", status " +
                         std::to_string(status_of(ip_question)) + ", instead of " +
                         (is_shared ? "no owner" : record.gid),
                     {record.gid, world::format_gid(ip_question.gid)});
            const question& gid_question =
                ask_and_wait(node, [&](question& question) { ask_for_address(question, gid); });
            const bool serves_ucm = node.machine().inter_modules.references("ucm_rarp_attach_fn") > 0;
            if (serves_ucm && (status_of(gid_question) != ibat_stat_ok || gid_question.ip != ip))
                fail(node,
                     record.gid + " is " + world::format_ipv4(gid_question.ip) + ", status " +
                         std::to_string(status_of(gid_question)) + ", instead of " + record.ipv4,
                     {record.ipv4, world::format_ipv4(gid_question.ip)});
            if (!fabric.plan.drawn_options.asks_for_paths) continue;
            const question& path_question =
                ask_and_wait(node, [&](question& question) { ask_for_path(question, gid, true); });
            if (status_of(path_question) != ibat_stat_ok)
                fail(node,
                     "it finds no path to " + record.gid + ", status " + std::to_string(status_of(path_question)));
        }
    }
}

// Unloads all modules. Afterwards no memory, datagram pool or record may be left, except records of HCAs with a port
// that is cut off.
void shut_down(tested_fabric& fabric)
{
    for (node& each : fabric.nodes) {
        each.machine().enter("rmmod", [&each] {
            for (const char* module : {"ats", "ucm", "ibat"})
                if (each.machine().modules.is_loaded(module) && !each.unload(module))
                    fail(each, std::string(module) + " cannot be unloaded");
        });
        for (const std::string& leak : each.machine().memory.leaks()) fail(each, "it leaks " + leak);
        if (!each.machine().get<stack::gsi>().pools().empty()) fail(each, "a pool of datagrams is left");
    }
    for (const embedded::service_record_view& record : fabric.subnet.service_records()) {
        const auto& [owner, hca] = owner_of(fabric, record.gid);
        if (!owner.is_cut_off(hca))
            fabric.violate("all modules are unloaded, but the SA still holds a record of " + record.gid + ", " +
                           record.host_name);
    }
}

// Checks the callbacks of all questions. If the call that asked returned ibat_stat_pending, a callback must have come,
// unless the question was cancelled (is_closed). If the call returned anything else, no callback may have come. The
// exception is a call that asked the service directly and failed: a callback may have come. Counts the answers as
// effects of the acts that asked.
void settle_questions(tested_fabric& fabric)
{
    for (node& node : fabric.nodes)
        for (const question& each : node.questions) {
            if (each.return_status == ibat_stat_pending && !each.is_closed && each.replies == 0)
                fail(node, "a question of tick " + std::to_string(each.begin_tick) + " was never answered",
                     {"one answer", "none"});
            const bool may_reply = each.return_status == ibat_stat_pending ||
                                   (each.is_of_service && each.return_status == ibat_stat_error);
            if (!may_reply && each.replies > 0) fail(node, "a question that was settled at once was answered again");
            if (each.act_kind && has_answer(each)) ++fabric.counts.marks[*each.act_kind];
        }
}

// Returns true if ats is loaded, and nothing but the act at `act_tick` has disturbed the host recently.
bool is_undisturbed(node& node, uint64_t act_tick)
{
    // Two verifications repair the effects of faults. If the host had time for two verifications before the act, only
    // faults within this time matter.
    const uint64_t recovery_ticks = 2 * node.longest_period * second + answer_ticks;
    const bool has_recovered = act_tick > recovery_ticks && !node.verification_may_be_off;
    const uint64_t quiet_tick = has_recovered ? act_tick - recovery_ticks : 0;
    return node.disturbed_tick <= act_tick && !node.is_changing() && node.is_live() && !node.may_know_wrong_ports &&
           node.fabric.network.was_quiet_since(quiet_tick) && node.harm().was_quiet_since(quiet_tick);
}

} // namespace

void check_promptly(node& node, uint64_t act_tick)
{
    schedule_timeout_uninterruptible(soon_ticks);
    if (!is_undisturbed(node, act_tick)) return;
    for (const flaw& flaw : examine(node, scope::healthy_hcas).flaws)
        if (!is_excused(node, flaw))
            fail(node, "it changed at tick " + std::to_string(act_tick) + ", but " + flaw.text, flaw.mismatch);
}

void check_in_spite_of_cuts(node& node, const act& act)
{
    tested_fabric& fabric = node.fabric;
    schedule_timeout_uninterruptible(2 * node.longest_period * second + answer_ticks);
    const uint64_t quiet_tick = fabric.now();
    check_promptly(node, quiet_tick);
    const auto is_healthy = [&](campaign::node& each) {
        return is_undisturbed(each, quiet_tick) && !each.is_cut_off() && each.has_link(0);
    };
    const auto has_one_address = [](const campaign::node& each) {
        return each.is_address_certain && each.hcas.size() == 1;
    };
    const auto other = std::ranges::find_if(fabric.nodes, [&](campaign::node& each) {
        return &each != &node && is_healthy(each) && has_one_address(each);
    });
    if (other == fabric.nodes.end() || !is_healthy(node) || !node.machine().modules.is_loaded("ibat")) return;
    const uint32_t ip = other->address[0];
    question& question = node.questions.emplace_back(
        campaign::question{.asker = node, .act_kind = std::nullopt, .begin_tick = fabric.now()});
    ++fabric.counts.questions;
    ask_for_gid(question, ip, true);
    schedule_timeout_uninterruptible(answer_ticks);
    // If the SA has restarted with old records, it may also have a record of an earlier active port of the other host.
    const auto records = fabric.subnet.service_records();
    const bool is_ambiguous =
        std::ranges::count(records, world::format_ipv4(ip), &embedded::service_record_view::ipv4) > 1;
    if (!is_healthy(node) || !is_healthy(*other) || is_ambiguous) return;
    ++fabric.counts.truths;
    for (int port = 1; port <= other->hcas[0]->port_count(); ++port)
        if (world::parse_gid(embedded::text_of(other->hcas[0]->read_port(port).gids[0])) == question.gid) {
            fabric.mark(act);
            return;
        }
    fail(node, "in spite of " + std::to_string(fabric.unhealed_faults.size()) + " cuts elsewhere it must find " +
                   world::format_ipv4(ip) + ", but it finds " + world::format_gid(question.gid) + ", status " +
                   std::to_string(status_of(question)));
}

void check_at_the_end(tested_fabric& fabric)
{
    fabric.begin_closing_step(fabric.unhealed_faults.empty() ? "The closing phase begins: all faults end"
                                                             : "The closing phase begins: all faults end, except cuts");
    end_faults(fabric);
    fabric.begin_closing_step("Modules are loaded; two verifications follow");
    bring_hosts_up(fabric);
    fabric.simulation->run_for(2 * verification_ticks + answer_ticks);
    std::vector<std::string> to_forget;
    compare_records(fabric, &to_forget);
    if (!to_forget.empty()) {
        // The service cannot detect that these records are wrong. Make the SA lose them. Then everything must become
        // right.
        fabric.begin_closing_step("The SA loses records that are wrong");
        forget(fabric, to_forget);
        fabric.simulation->run_for(2 * verification_ticks + answer_ticks);
        compare_records(fabric, nullptr);
    }
    fabric.begin_closing_step("Every host looks up records");
    compare_lookups(fabric);
    fabric.begin_closing_step("All modules are unloaded");
    shut_down(fabric);
    settle_questions(fabric);
}

} // namespace campaign
