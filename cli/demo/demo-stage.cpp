#include "cli/demo/demo-stage.h"

#include <cstdio>

#include "console/table.h"
#include "host/exec/print-capture.h"
#include "host/world/text.h"
#include "kernel/proc.h"
#include "records/host-record.h"

namespace cli
{

namespace
{

constexpr const char* control_file = "dorvex/ats/control";
constexpr const char* bold = "\033[1m";
constexpr const char* dim = "\033[2m";
constexpr const char* plain = "\033[0m";

world::host_plan plan_of(const std::string& name, int ports, const std::string& address)
{
    world::host_plan plan;
    plan.name = name;
    plan.hcas = {{.name = "mthca0", .ports = ports}};
    plan.trace_level = world::trace_level_debug;
    plan.modules = world::usual_modules(name, address);
    return plan;
}

} // namespace

stage::stage(const std::string& module_folder, fabric::tap* tap, bool is_terminal)
    : is_terminal_(is_terminal), time_(exec::make_simulation()), subnet_(std::make_unique<embedded::subnet>(*time_))
{
    subnet_->set_tap(tap);
    const world::host_plan plans[] = {plan_of("node1", 1, "10.0.0.1"), plan_of("node2", 2, "10.0.0.2"),
                                      plan_of("node3", 1, "10.0.0.3")};
    uint64_t random_seed = 0;
    for (const world::host_plan& plan : plans)
        hosts_.push_back(std::make_unique<world::host>(*time_, world::add_hcas(*subnet_, plan).value(), plan,
                                                       module_folder, ++random_seed));
    log_positions_.resize(hosts_.size());
}

void stage::link(world::host& at, int port, bool up)
{
    const std::string& hca = at.plan().hcas.front().name;
    const ats::result<> changed =
        up ? subnet_->link_up(at.name(), hca, port) : subnet_->link_down(at.name(), hca, port);
    expect(changed.has_value(), changed ? "" : changed.error().text);
}

void stage::write_control(world::host& at, const std::string& command)
{
    kernel::machine& machine = at.machine();
    int taken = 0;
    machine.enter("write", [&] { taken = machine.proc.write(control_file, command + "\n"); });
    expect(taken == static_cast<int>(command.size()) + 1, "the control file takes '" + command + "'");
}

std::string stage::read_control(world::host& at)
{
    kernel::machine& machine = at.machine();
    std::string report;
    machine.enter("read", [&] {
        exec::print_capture capture(exec::print_capture::also_log);
        std::string nothing;
        expect(machine.proc.read(control_file, 0, PROC_PAGE_SIZE, &nothing) == 0, "the control file reads as empty");
        report = capture.text();
    });
    return report;
}

embedded::service_record_view stage::record_of(const std::string& host_name)
{
    std::optional<embedded::service_record_view> found;
    for (const embedded::service_record_view& record : subnet_->service_records()) {
        if (record.host_name != host_name) continue;
        expect(!found, "there is one record of " + host_name + " only");
        found = record;
    }
    expect(found.has_value(), "there is a record of " + host_name);
    return *found;
}

void stage::begin(size_t number, const std::string& title)
{
    for (size_t i = 0; i < hosts_.size(); ++i)
        hosts_[i]->machine().log.lines_from(log_positions_[i], SIZE_MAX, &log_positions_[i]);
    std::printf("%s%2zu. %-86s%8.3f s%s\n", is_terminal_ ? bold : "", number, title.c_str(),
                static_cast<double>(time_->now()) / 1000, is_terminal_ ? plain : "");
}

void stage::say(const std::string& fact) const
{
    std::printf("    %s\n", fact.c_str());
}

void stage::say(const std::string& asked, const world::resolution& answer) const
{
    const bool found = answer.status == ibat_stat_ok;
    const std::string gid = world::format_gid(answer.gid);
    const std::string address = world::format_ipv4(answer.ip);
    std::string text = asked + ": ";
    if (found)
        text +=
            (asked.ends_with(address) ? gid : address) + (answer.from_cache ? ", from IBAT's cache" : ", from the SA");
    else
        text += answer.why;
    if (answer.took_ticks > 0) text += ", after " + std::to_string(answer.took_ticks) + " ms";
    say(text);
}

void stage::show_records()
{
    std::vector<std::vector<std::string>> rows = {{"GID", "P_KEY", "ADDRESS", "HOST NAME", "LEASE"}};
    for (const embedded::service_record_view& record : subnet_->service_records()) {
        char p_key[8];
        std::snprintf(p_key, sizeof p_key, "0x%04X", record.p_key);
        rows.push_back({record.gid, p_key, record.ipv4, record.host_name, records::lease_text(record.lease_seconds)});
    }
    std::fputs(console::format_table(rows, 4).c_str(), stdout);
}

void stage::quote(world::host& at, const std::string& fragment)
{
    size_t index = 0;
    while (hosts_[index].get() != &at) ++index;
    uint64_t next = 0;
    for (const kernel::log_line& line : at.machine().log.lines_from(log_positions_[index], SIZE_MAX, &next)) {
        if (line.text.find(fragment) == std::string::npos) continue;
        std::printf("    %s%s %s%s\n", is_terminal_ ? dim : "", at.name().c_str(), kernel::format_line(line).c_str(),
                    is_terminal_ ? plain : "");
        return;
    }
    throw step_failed("the log of " + at.name() + " says '" + fragment + "'");
}

} // namespace cli
