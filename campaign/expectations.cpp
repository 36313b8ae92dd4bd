// What the service must achieve: the SA holds the truth about every host, and every lookup gets it.
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

constexpr uint64_t soon_ticks = 600;            // for a change to arrive at the SA
constexpr uint64_t verification_ticks = 60'600; // the longest period, as it is by default
constexpr uint64_t answer_ticks = 3 * second;   // for a question to be settled, and more
constexpr uint64_t calm_ticks = 30 * second;    // for every call to come to its end
constexpr size_t lookups_per_host = 6;

using records_t = std::vector<ib_service_record_v2_t>;
using embedded::view_of;

// What the service does not look at again by itself may stay wrong: a name after harm, and what was false when it was
// read from the port or when it arrived at the SA.
enum class excuse { none, harm_since_named, false_record };

// What is wrong about the record of an HCA's active port.
struct flaw {
    std::string what;
    excuse has = excuse::none;
};

bool is_excused(node& at, const flaw& wrong)
{
    const bool was_harmed = !at.in.network.quiet_since(at.name_tick) || !at.harm().quiet_since(at.name_tick);
    return (wrong.has == excuse::harm_since_named && was_harmed) ||
           (wrong.has == excuse::false_record && (at.in.network.ever || at.may_be_misread));
}

// True if every byte of the record is as a host registers it.
bool is_as_registered(const ib_service_record_v2_t& record)
{
    const ib_service_record_v2_t like = records::encode(records::decode(record));
    return memcmp(&like, &record, sizeof record) == 0;
}

flaw flaw_of(node& at, size_t hca, const std::string& gid, const std::string& ipv4, const records_t& records)
{
    const auto has_gid = [&](const auto& each) { return view_of(each).gid == gid; };
    const auto found = std::ranges::find_if(records, has_gid);
    if (found == records.end()) return {"there is no record of " + gid};
    if (std::ranges::count_if(records, has_gid) > 1)
        return {"there are several records of " + gid, excuse::false_record};
    const embedded::service_record_view held = view_of(*found);
    if (held.ipv4 != ipv4) return {gid + " has the address " + held.ipv4 + ", not " + ipv4};
    if (at.address_is_certain && ipv4 != world::format_ipv4(at.address[hca]))
        return {"the host has the address " + ipv4 + ", not " + world::format_ipv4(at.address[hca])};
    if (std::ranges::find(at.addresses_given, *world::parse_ipv4(held.ipv4)) == at.addresses_given.end())
        return {"nobody gave the address " + held.ipv4};
    if (held.p_key != at.hcas[hca]->read_port(1).p_keys[0] || !is_as_registered(*found))
        return {"the P_Key or what should be the same in all records is another in that of " + gid,
                excuse::false_record};
    if (at.name_is_certain && held.host_name != at.name.substr(0, 30))
        return {gid + " has the name " + held.host_name + ", not " + at.name, excuse::harm_since_named};
    if (std::ranges::find(at.names_given, held.host_name) == at.names_given.end())
        return {"nobody gave the name " + held.host_name, excuse::false_record};
    return {};
}

// The records that a host should have, and what is wrong with them. Called by a task of the host.
struct finding {
    std::vector<std::string> gids; // registered
    std::vector<flaw> flaws;
};

finding examine(node& at)
{
    finding found;
    const console::json shown = at.read_control();
    if (shown.is_null()) return found;
    const records_t records = at.in.net.save_records();
    if (shown.size() != at.hcas.size()) found.flaws.push_back({"it does not serve each HCA"});
    for (size_t i = 0; i < shown.size(); ++i) {
        const console::json& active = shown[i]["active_port"];
        ++at.in.done.truths;
        if (active.is_null() == at.has_link(i)) {
            found.flaws.push_back(
                {active.is_null() ? "no port is active in spite of a link" : "a port is active without a link"});
        } else if (!active.is_null()) {
            const console::json& port = shown[i]["ports"][active.get<size_t>() - 1];
            found.gids.push_back(port["gid"]);
            if (flaw wrong = flaw_of(at, i, port["gid"], port["address"], records); !wrong.what.empty())
                found.flaws.push_back(wrong);
        }
    }
    return found;
}

void fail(node& at, const std::string& what)
{
    at.in.violate(at.host.name() + ": " + what);
}

// ---- in the end ----

void end_faults(arena& in)
{
    const bool queries_may_have_failed = std::ranges::any_of(in.hosts, [](node& each) { return each.harm().ever; });
    for (node& each : in.hosts)
        for (fabric::hca* hca : each.hcas)
            for (int port = 1; port <= hca->port_count(); ++port)
                (void)in.net.link_up(each.host.name(), hca->name(), port);
    // A port whose query failed is read again when it hears of an event, and not before.
    if (queries_may_have_failed || in.network.ever) (void)in.net.set_sm(0x2FFF, 0);
    in.sim->run_for(calm_ticks);
    for (node& each : in.hosts) {
        each.reap();
        if (each.has_tasks()) in.violate("somebody is stuck:\n" + in.sim->report());
    }
}

// Three of four hosts that are down come back, and everybody verifies as usual.
void bring_hosts_up(arena& in)
{
    uint64_t longest_period = 0;
    for (node& each : in.hosts) {
        each.machine().enter("insmod", [&] {
            // Loaded when the HCAs could not be listed, it serves none.
            if (each.may_be_misread && each.read_control() == console::json::array()) each.unload("ats");
            if (!each.is_live() && (in.what.seed + each.number) % 4 == 0) return;
            for (const char* module : {"ibat", "ucm", "ats"})
                if (!each.machine().modules.is_loaded(module)) each.load(module);
            if (!each.is_live()) fail(each, "it does not start, though nothing fails");
            each.write_control("sa_verify_period 60 1");
        });
        longest_period = std::max(longest_period, each.longest_period);
    }
    in.sim->run_for(longest_period * second);
}

node& owner_of(arena& in, const std::string& gid)
{
    for (node& each : in.hosts)
        for (fabric::hca* hca : each.hcas)
            for (int port = 1; port <= hca->port_count(); ++port)
                if (embedded::text_of(hca->read_port(port).gids[0]) == gid) return each;
    in.violate("the SA holds a record of " + gid + ", which is nobody's");
}

// Every live host's records, compared with the truth: what is left at the SA besides them, and what is excused.
void compare_records(arena& in, std::vector<std::string>* to_forget)
{
    std::vector<std::string> true_gids;
    for (node& each : in.hosts) {
        if (!each.is_live()) continue;
        finding found;
        each.machine().enter("check", [&] { found = examine(each); });
        for (const flaw& wrong : found.flaws)
            if (!to_forget || !is_excused(each, wrong)) fail(each, wrong.what);
        if (found.flaws.empty()) true_gids.insert(true_gids.end(), found.gids.begin(), found.gids.end());
    }
    for (const ib_service_record_v2_t& raw : in.net.save_records()) {
        const embedded::service_record_view record = view_of(raw);
        if (std::ranges::find(true_gids, record.gid) != true_gids.end() && is_as_registered(raw)) continue;
        const node& owner = owner_of(in, record.gid);
        if (!to_forget || !(in.network.ever || owner.harm().ever || owner.may_have_left_records))
            in.violate("the SA still holds a record of " + record.gid + ", " + record.host_name);
        to_forget->push_back(record.gid);
    }
}

void forget(arena& in, const std::vector<std::string>& gids)
{
    for (const std::string& text : gids) {
        const wire_gid_t gid = to_wire(*world::parse_gid(text));
        in.net.forget(std::to_array(gid.bytes));
    }
}

question& ask_and_wait(node& at, const std::function<void(question&)>& ask)
{
    question& asked = at.questions.emplace_back(question{.asked_at = at, .kind = {}, .begun_tick = at.in.now()});
    at.machine().enter("ask", [&] { ask(asked); });
    for (uint64_t waited = 0; !asked.is_settled() && waited < answer_ticks; ++waited) at.in.sim->run_for(1);
    ++at.in.done.questions;
    ++at.in.done.truths;
    return asked;
}

ibat_stat_t status_of(const question& asked)
{
    return asked.returned == ibat_stat_pending ? asked.status : asked.returned;
}

// True if the question brought an address or a GID. An SA that answers status 0 without a look brings neither.
bool has_answer(const question& asked)
{
    return status_of(asked) == ibat_stat_ok && (asked.by_gid ? asked.ip != 0 : !(asked.gid == kq_gid_t{}));
}

// Every live host finds what the SA holds about some of the others: each GID has its address, and each address that
// one record has its GID. An address that two HCAs of a host share has no single answer.
void compare_lookups(arena& in)
{
    std::mt19937_64 dice(in.what.seed);
    const std::vector<embedded::service_record_view> records = in.net.service_records();
    if (records.empty()) return;
    for (node& at : in.hosts) {
        if (!at.is_live()) continue;
        at.machine().enter("flush", [&at] { (**world::published<ibat_flush_fn_t>(at.machine(), "ibat_flush_fn"))(); });
        for (size_t i = 0; i < lookups_per_host; ++i) {
            const embedded::service_record_view& wanted = records[dice() % records.size()];
            const uint32_t ip = *world::parse_ipv4(wanted.ipv4);
            const kq_gid_t gid = *world::parse_gid(wanted.gid);
            const bool is_shared = std::ranges::count(records, wanted.ipv4, &embedded::service_record_view::ipv4) > 1;
            const question& by_ip = ask_and_wait(at, [&](question& asked) { ask_for_gid(asked, ip, true); });
            if (!is_shared && (status_of(by_ip) != ibat_stat_ok || !(by_ip.gid == gid)))
                fail(at, wanted.ipv4 + " is " + world::format_gid(by_ip.gid) + ", status " +
                             std::to_string(status_of(by_ip)) + ", instead of " + wanted.gid);
            const question& by_gid = ask_and_wait(at, [&](question& asked) { ask_for_address(asked, gid); });
            const bool serves_ucm = at.machine().inter_modules.references("ucm_rarp_attach_fn") > 0;
            if (serves_ucm && (status_of(by_gid) != ibat_stat_ok || by_gid.ip != ip))
                fail(at, wanted.gid + " is " + world::format_ipv4(by_gid.ip) + ", status " +
                             std::to_string(status_of(by_gid)) + ", instead of " + wanted.ipv4);
        }
    }
}

// The order of loading was the hosts' own; a module in use leaves last.
void shut_down(arena& in)
{
    for (node& each : in.hosts) {
        each.machine().enter("rmmod", [&each] {
            for (const char* module : {"ats", "ucm", "ibat"})
                if (each.machine().modules.is_loaded(module) && !each.unload(module))
                    fail(each, std::string(module) + " does not go");
        });
        for (const std::string& leak : each.machine().memory.leaks()) fail(each, "it leaks " + leak);
        if (!each.machine().get<stack::gsi>().pools().empty()) fail(each, "a pool of datagrams is left");
    }
    if (const auto left = in.net.service_records(); !left.empty())
        in.violate("all hosts have gone, and the SA holds a record of " + left[0].gid + ", " + left[0].host_name);
}

void settle_questions(arena& in)
{
    for (node& at : in.hosts)
        for (const question& each : at.questions) {
            if (each.returned == ibat_stat_pending && !each.is_closed && each.replies == 0)
                fail(at, "a question of tick " + std::to_string(each.begun_tick) + " was never answered");
            const bool may_reply =
                each.returned == ibat_stat_pending || (each.of_service && each.returned == ibat_stat_error);
            if (!may_reply && each.replies > 0) fail(at, "a question that was settled at once was answered again");
            if (each.kind && has_answer(each)) ++in.done.marks[*each.kind];
        }
}

} // namespace

void check_promptly(node& at, uint64_t acted_tick)
{
    schedule_timeout_uninterruptible(soon_ticks);
    // Whatever harm did before has been put right by verifications.
    const uint64_t recovery_ticks = 2 * at.longest_period * second + answer_ticks;
    const bool has_recovered = acted_tick > recovery_ticks && !at.may_not_verify;
    const uint64_t quiet_tick = has_recovered ? acted_tick - recovery_ticks : 0;
    const bool is_undisturbed = at.disturbed_tick <= acted_tick && !at.is_changing() && at.is_live() &&
                                !at.may_be_misread && at.in.network.quiet_since(quiet_tick) &&
                                at.harm().quiet_since(quiet_tick);
    if (!is_undisturbed) return;
    for (const flaw& wrong : examine(at).flaws)
        if (!is_excused(at, wrong))
            fail(at, "it changed at tick " + std::to_string(acted_tick) + ", and " + wrong.what);
}

void check_in_the_end(arena& in)
{
    end_faults(in);
    bring_hosts_up(in);
    in.sim->run_for(2 * verification_ticks + answer_ticks);
    std::vector<std::string> to_forget;
    compare_records(in, &to_forget);
    if (!to_forget.empty()) {
        // What the service cannot know to be wrong, an administrator puts right; then all is as it should be.
        forget(in, to_forget);
        in.sim->run_for(2 * verification_ticks + answer_ticks);
        compare_records(in, nullptr);
    }
    compare_lookups(in);
    shut_down(in);
    settle_questions(in);
}

} // namespace campaign
