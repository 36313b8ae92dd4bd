#include "cli/service/registration.h"

#include <cassert>
#include <optional>

#include "console/record-answer.h"
#include "host/stack/gsi-service.h"
#include "host/world/printable.h"
#include "host/world/resolution.h"
#include "host/world/text.h"
#include "kernel/sync.h"
#include "kernel/time.h"

namespace cli
{

namespace
{

using nlohmann::json;
using stack::registration_state;

constexpr uint64_t answer_limit_ticks = 1000; // the SA counts as silent if it has not answered after this time
constexpr unsigned long poll_period_ticks = 5;

struct hca_state {
    std::string hca;
    bool has_link = false;                           // at least one port is active
    bool port_has_link = false;                      // the port that sent the record is active
    std::optional<stack::registration> registration; // empty if the HCA has sent no record
};

tl::unexpected<ats::error> no_port()
{
    return ats::fail("no port is active; it is registered when a link comes up");
}

tl::unexpected<ats::error> no_answer()
{
    return ats::fail(ats::error_kind::unreachable, "the SA did not answer");
}

tl::unexpected<ats::error> not_sent()
{
    return ats::fail("it was not sent, 'ats log --level 1' says why");
}

// Reads the states of the host's HCAs, in the order of the HCAs.
std::vector<hca_state> read_hca_states(world::host& host)
{
    kernel::machine& machine = host.machine();
    std::vector<stack::registration_view> views;
    machine.enter("registration", [&] { views = machine.get<stack::gsi>().registrations(); });
    std::vector<hca_state> states;
    for (fabric::hca* hca : machine.hcas()) {
        hca_state& state = states.emplace_back();
        state.hca = hca->name();
        for (const stack::registration_view& view : views)
            if (view.hca == hca->name() && records::is_host_record(view.record.record))
                state.registration = view.record;
        for (int port = 1; port <= hca->port_count(); ++port) {
            const bool is_active = hca->read_port(port).state == fabric::link_state::active;
            state.has_link |= is_active;
            if (state.registration && state.registration->port == port) state.port_has_link = is_active;
        }
    }
    return states;
}

uint64_t confirmations_of(const hca_state& hca)
{
    return hca.registration ? hca.registration->confirmations : 0;
}

std::string text_of(const ib_service_record_v2_t& record)
{
    if (!records::is_host_record(record)) return "of another service";
    const records::host_record host = records::decode(record);
    return world::format_ipv4(host.address) + " " + world::printable(host.host_name);
}

// Succeeds if the SA has confirmed the record that the host sent last. Otherwise the error gives the reason.
ats::result<> answer_of(const stack::registration& registration)
{
    switch (registration.state) {
    case registration_state::confirmed:
        return {};
    case registration_state::asked:
        return no_answer();
    case registration_state::not_sent:
        return not_sent();
    case registration_state::refused:
        return ats::fail("the SA refused it with status " + records::status_text(registration.status));
    case registration_state::missing:
        return ats::fail("the SA answered a question for it with status " + records::status_text(registration.status));
    case registration_state::different:
        return ats::fail("the SA holds another record: " + text_of(registration.sa_record));
    case registration_state::withdrawn:
        return ats::fail("it has been withdrawn");
    }
    return {};
}

// Succeeds if the HCA is registered at the time `now_ticks`: its port is active, the SA has confirmed its record, and
// the SA is not silent.
ats::result<> registration_of(const hca_state& hca, uint64_t now_ticks)
{
    if (!hca.has_link) return no_port();
    if (!hca.registration) return ats::fail("nothing has been sent to the SA yet");
    const stack::registration& registration = *hca.registration;
    if (registration.is_unanswered && now_ticks - registration.unanswered_tick > answer_limit_ticks) return no_answer();
    if (!hca.port_has_link)
        return ats::fail("port " + std::to_string(registration.port) + ", which registered it, is down");
    return answer_of(registration);
}

json seconds_since(uint64_t tick, uint64_t now_ticks)
{
    return (now_ticks - std::min(tick, now_ticks)) / HZ;
}

json report_of(const hca_state& hca, uint64_t now_ticks)
{
    const ats::result<> registered = registration_of(hca, now_ticks);
    json report = {{"hca", hca.hca},
                   {"registered", registered.has_value()},
                   {"reason", registered ? json() : json(registered.error().text)},
                   {"status", nullptr},
                   {"confirmed_seconds", nullptr},
                   {"unanswered_seconds", nullptr}};
    for (const char* key : {"name", "address", "gid", "p_key", "port", "sm_lid"}) report[key] = nullptr;
    if (!hca.registration) return report;
    const stack::registration& registration = *hca.registration;
    const records::host_record record = records::decode(registration.record);
    report["name"] = record.host_name;
    report["address"] = world::format_ipv4(record.address);
    report["gid"] = world::format_gid(record.gid);
    report["p_key"] = console::format_word(record.p_key);
    report["port"] = registration.port;
    report["sm_lid"] = registration.sm_lid;
    if (registration.state == registration_state::refused || registration.state == registration_state::missing)
        report["status"] = console::format_word(registration.status);
    if (registration.confirmed_tick)
        report["confirmed_seconds"] = seconds_since(*registration.confirmed_tick, now_ticks);
    if (!registered && registered.error().kind == ats::error_kind::unreachable)
        report["unanswered_seconds"] = seconds_since(registration.unanswered_tick, now_ticks);
    return report;
}

// Asks the SA for the owner of the address in an unconfirmed record. The host's stack also notes the answer and may
// then count the record as confirmed. Fails if the SA names another owner, or none. Succeeds if the SA does not answer.
ats::result<> ask_for_owner(kernel::machine& machine, const stack::registration& registration)
{
    const records::host_record record = records::decode(registration.record);
    const std::string address = world::format_ipv4(record.address);
    const world::resolution owner = resolve_address(machine, record.address, world::lookup_mode::sa_only);
    if (owner.status == ibat_stat_not_found) return ats::fail(owner.reason + " of " + address);
    if (owner.status == ibat_stat_ok && owner.gid != record.gid)
        return ats::fail("the SA names another owner of " + address + ": " + world::format_gid(owner.gid));
    return {};
}

// Tells whether the SA has confirmed the change that an order made. `hca` must have a link. Returns true if the SA has
// the new record. Returns false if the SA has not answered yet. Otherwise the error gives the reason.
ats::result<bool> is_confirmed(const hca_state& hca, uint64_t confirmations_before,
                               const confirmation::is_new_record_t& is_new_record)
{
    if (!hca.registration) return not_sent();
    const stack::registration& registration = *hca.registration;
    const bool is_of_order =
        is_new_record(records::decode(registration.record)) &&
        (registration.state != registration_state::confirmed || registration.confirmations > confirmations_before);
    // Here, no Set of the new record was sent. Before a Set, ats sends a Delete of the old record. If the Delete has no
    // answer, the SA is silent.
    if (!is_of_order) return registration.is_unanswered ? no_answer() : not_sent();
    if (registration.state == registration_state::asked) return false;
    return answer_of(registration).map([] { return true; });
}

void pause(kernel::machine& machine)
{
    machine.enter("confirmation", [] { schedule_timeout_uninterruptible(poll_period_ticks); });
}

} // namespace

json registrations_of(world::host& host)
{
    json reports = json::array();
    const std::vector<hca_state> hcas = read_hca_states(host);
    for (const hca_state& hca : hcas) reports.push_back(report_of(hca, host.machine().exec().now()));
    return reports;
}

std::string registered_name(world::host& host)
{
    for (const hca_state& hca : read_hca_states(host))
        if (hca.registration) return records::decode(hca.registration->record).host_name;
    return "";
}

confirmation::confirmation(world::host& host, is_new_record_t is_new_record)
    : host_(host), is_new_record_(std::move(is_new_record))
{
    for (const hca_state& hca : read_hca_states(host)) confirmations_before_.push_back(confirmations_of(hca));
}

ats::result<> confirmation::wait()
{
    kernel::machine& machine = host_.machine();
    const uint64_t deadline = machine.exec().now() + answer_limit_ticks;
    for (bool has_asked = false;; pause(machine)) {
        const std::vector<hca_state> hcas = read_hca_states(host_);
        assert(hcas.size() == confirmations_before_.size());
        const hca_state* unconfirmed_hca = nullptr;
        bool has_link = false;
        for (size_t i = 0; i < hcas.size(); ++i) {
            if (!hcas[i].has_link) continue;
            has_link = true;
            const ats::result<bool> verdict = is_confirmed(hcas[i], confirmations_before_[i], is_new_record_);
            if (!verdict && hcas.size() > 1) return ats::fail(hcas[i].hca + ": " + verdict.error().text);
            if (!verdict) return ats::pass_on(verdict);
            if (!*verdict) unconfirmed_hca = &hcas[i];
        }
        if (!has_link) return no_port();
        if (!unconfirmed_hca) return {};
        if (machine.exec().now() < deadline) continue;
        if (has_asked) return no_answer();
        if (const ats::result<> owner = ask_for_owner(machine, *unconfirmed_hca->registration); !owner) return owner;
        has_asked = true;
    }
}

} // namespace cli
