#include "cli/service/registration.h"

#include <optional>

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

constexpr uint64_t answer_limit_ticks = 1000; // for an answer of the SA
constexpr unsigned long look_period_ticks = 5;
constexpr const char* no_port = "no port is active; it is registered when a link comes up";
constexpr const char* no_answer = "the SA did not answer";
constexpr const char* see_the_log = "it was not sent, 'ats log --level 1' says why";

struct hca_registration {
    std::string hca;
    bool has_link = false; // any port
    bool port_has_link = false;
    std::optional<stack::registration> seen; // empty: no record has been sent
};

// In the order of the host's HCAs.
std::vector<hca_registration> look(world::host& host)
{
    kernel::machine& machine = host.machine();
    std::vector<stack::registration_view> views;
    machine.enter("registration", [&] { views = machine.get<stack::gsi>().registrations(); });
    std::vector<hca_registration> found;
    for (fabric::hca* hca : machine.hcas()) {
        hca_registration& added = found.emplace_back();
        added.hca = hca->name();
        for (const stack::registration_view& view : views)
            if (view.hca == hca->name() && records::is_host_record(view.record.record)) added.seen = view.record;
        for (int port = 1; port <= hca->port_count(); ++port) {
            const bool is_active = hca->read_port(port).state == fabric::link_state::active;
            added.has_link |= is_active;
            if (added.seen && added.seen->port == port) added.port_has_link = is_active;
        }
    }
    return found;
}

uint64_t confirmations_of(const hca_registration& hca)
{
    return hca.seen ? hca.seen->confirmations : 0;
}

std::string text_of(const ib_service_record_v2_t& record)
{
    if (!records::is_host_record(record)) return "of another service";
    const records::host_record host = records::decode(record);
    return world::format_ipv4(host.address) + " " + world::printable(host.host_name);
}

// Says why the SA does not hold the record that was sent last; "" if it holds it.
std::string answer_of(const stack::registration& seen)
{
    switch (seen.state) {
    case registration_state::confirmed:
        return "";
    case registration_state::asked:
        return no_answer;
    case registration_state::not_sent:
        return see_the_log;
    case registration_state::refused:
        return "the SA refused it with status " + records::status_text(seen.status);
    case registration_state::missing:
        return "the SA answered a question for it with status " + records::status_text(seen.status);
    case registration_state::different:
        return "the SA holds another record: " + text_of(seen.held);
    case registration_state::withdrawn:
        return "it has been withdrawn";
    }
    return "";
}

// Says why the HCA counts as not registered now; "" if it is registered.
std::string why_not_registered(const hca_registration& hca, uint64_t now_ticks)
{
    if (!hca.has_link) return no_port;
    if (!hca.seen) return "nothing has been sent to the SA yet";
    if (hca.seen->is_unanswered && now_ticks - hca.seen->unanswered_tick > answer_limit_ticks) return no_answer;
    if (!hca.port_has_link) return "port " + std::to_string(hca.seen->port) + ", which registered it, is down";
    return answer_of(*hca.seen);
}

json seconds_since(uint64_t tick, uint64_t now_ticks)
{
    return (now_ticks - std::min(tick, now_ticks)) / HZ;
}

std::string hexadecimal(uint16_t word)
{
    char text[sizeof "0x0000"];
    std::snprintf(text, sizeof text, "0x%04X", word);
    return text;
}

json report_of(const hca_registration& hca, uint64_t now_ticks)
{
    const std::string why = why_not_registered(hca, now_ticks);
    json report = {{"hca", hca.hca},    {"registered", why.empty()},    {"reason", why.empty() ? json() : json(why)},
                   {"status", nullptr}, {"confirmed_seconds", nullptr}, {"unanswered_seconds", nullptr}};
    for (const char* key : {"name", "address", "gid", "p_key", "port", "sm_lid"}) report[key] = nullptr;
    if (!hca.seen) return report;
    const stack::registration& seen = *hca.seen;
    const records::host_record record = records::decode(seen.record);
    report["name"] = record.host_name;
    report["address"] = world::format_ipv4(record.address);
    report["gid"] = world::format_gid(record.gid);
    report["p_key"] = hexadecimal(record.p_key);
    report["port"] = seen.port;
    report["sm_lid"] = seen.sm_lid;
    if (seen.state == registration_state::refused || seen.state == registration_state::missing)
        report["status"] = hexadecimal(seen.status);
    if (seen.confirmed_tick) report["confirmed_seconds"] = seconds_since(*seen.confirmed_tick, now_ticks);
    if (why == no_answer) report["unanswered_seconds"] = seconds_since(seen.unanswered_tick, now_ticks);
    return report;
}

// Asks the SA for the owner of the unconfirmed record's address. The stack sees the answer too.
// Returns what is wrong with it, or "".
std::string ask_for(kernel::machine& machine, const stack::registration& seen)
{
    const records::host_record record = records::decode(seen.record);
    const world::resolution owner = resolve_address(machine, record.address, world::ask::sa_only);
    if (owner.status == ibat_stat_not_found) return owner.why + " of " + world::format_ipv4(record.address);
    if (owner.status == ibat_stat_ok && owner.gid != record.gid)
        return "the SA names another owner of " + world::format_ipv4(record.address) + ": " +
               world::format_gid(owner.gid);
    return "";
}

struct verdict {
    bool waits = false; // for an answer of the SA
    std::string why;    // "": it holds the record
};

// Judges an HCA with a link after an order.
verdict judge(const hca_registration& hca, uint64_t confirmations_before, const confirmation::is_wanted_t& is_wanted)
{
    if (!hca.seen) return {.why = see_the_log};
    const stack::registration& seen = *hca.seen;
    const bool is_of_order = is_wanted(records::decode(seen.record)) &&
                             (seen.state != registration_state::confirmed || seen.confirmations > confirmations_before);
    if (!is_of_order) return {.why = seen.is_unanswered ? no_answer : see_the_log}; // a Delete comes before the Set
    return {.waits = seen.state == registration_state::asked, .why = answer_of(seen)};
}

void pause(kernel::machine& machine)
{
    machine.enter("confirmation", [] { schedule_timeout_uninterruptible(look_period_ticks); });
}

} // namespace

json registrations_of(world::host& host)
{
    json reports = json::array();
    const std::vector<hca_registration> hcas = look(host);
    for (const hca_registration& hca : hcas) reports.push_back(report_of(hca, host.machine().exec().now()));
    return reports;
}

std::string registered_name(world::host& host)
{
    for (const hca_registration& hca : look(host))
        if (hca.seen) return records::decode(hca.seen->record).host_name;
    return "";
}

confirmation::confirmation(world::host& host, is_wanted_t is_wanted) : host_(host), is_wanted_(std::move(is_wanted))
{
    for (const hca_registration& hca : look(host)) confirmations_before_.push_back(confirmations_of(hca));
}

std::string confirmation::wait()
{
    kernel::machine& machine = host_.machine();
    const uint64_t deadline = machine.exec().now() + answer_limit_ticks;
    for (bool has_asked = false;; pause(machine)) {
        const std::vector<hca_registration> hcas = look(host_);
        const hca_registration* waiting = nullptr;
        bool has_link = false;
        for (size_t i = 0; i < hcas.size(); ++i) {
            if (!hcas[i].has_link) continue;
            has_link = true;
            const verdict found = judge(hcas[i], confirmations_before_[i], is_wanted_);
            if (found.waits)
                waiting = &hcas[i];
            else if (!found.why.empty())
                return hcas.size() > 1 ? hcas[i].hca + ": " + found.why : found.why;
        }
        if (!has_link) return no_port;
        if (!waiting) return "";
        if (machine.exec().now() < deadline) continue;
        if (has_asked) return no_answer;
        if (const std::string wrong = ask_for(machine, *waiting->seen); !wrong.empty()) return wrong;
        has_asked = true;
    }
}

} // namespace cli
