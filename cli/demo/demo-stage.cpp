#include "cli/demo/demo-stage.h"

#include <algorithm>
#include <cassert>
#include <cstdio>

#include <fmt/core.h>

#include "console/host-plans.h"
#include "console/record-answer.h"
#include "console/table.h"
#include "host/exec/print-capture.h"
#include "host/world/text.h"
#include "kernel/proc.h"

namespace cli
{

namespace
{

constexpr const char* bold = "\033[1m";
constexpr const char* dim = "\033[2m";
constexpr const char* plain = "\033[0m";

world::host_plan plan_of(const std::string& name, int ports, const std::string& address)
{
    world::host_plan plan = console::usual_host(name, address, ZR_DEBUG);
    plan.hcas = {{.name = "mthca0", .ports = ports}};
    return plan;
}

} // namespace

stage::stage(const std::string& module_folder, fabric::tap* tap, recording::recorder* recorder, bool is_terminal)
    : is_terminal_(is_terminal), recorder_(recorder), time_(exec::make_simulation()),
      subnet_(std::make_unique<embedded::subnet>(*time_))
{
    subnet_->set_tap(tap);
    const world::host_plan plans[] = {plan_of("node1", 1, "10.0.0.1"), plan_of("node2", 2, "10.0.0.2"),
                                      plan_of("node3", 1, "10.0.0.3")};
    uint64_t random_seed = 0;
    for (const world::host_plan& plan : plans)
        hosts_.push_back(std::make_unique<world::host>(*time_, world::add_hcas(*subnet_, plan).value(), plan,
                                                       module_folder, ++random_seed));
    log_positions_.resize(hosts_.size());
    if (!recorder_) return;
    recorder_->follow(*subnet_);
    for (const auto& host : hosts_) recorder_->follow(host->name(), host->machine());
}

stage::~stage()
{
    if (recorder_) recorder_->stop();
}

void stage::set_link(world::host& host, int port, bool is_up)
{
    const std::string& hca = host.plan().hcas.front().name;
    expect(is_up ? subnet_->link_up(host.name(), hca, port) : subnet_->link_down(host.name(), hca, port));
}

void stage::write_control(world::host& host, const std::string& command)
{
    kernel::machine& machine = host.machine();
    int result = 0;
    machine.enter("write", [&] { result = machine.proc.write(console::control_file, command + "\n"); });
    expect(result == static_cast<int>(command.size()) + 1, "the control file takes '" + command + "'");
}

std::string stage::read_control(world::host& host)
{
    kernel::machine& machine = host.machine();
    std::string report;
    machine.enter("read", [&] {
        exec::print_capture capture(exec::print_capture::also_log);
        std::string text; // stays empty: ats prints its report, and print_capture receives it
        expect(machine.proc.read(console::control_file, 0, PROC_PAGE_SIZE, &text) == 0,
               "the control file reads as empty");
        report = capture.text();
    });
    return report;
}

embedded::service_record_view stage::record_of(const std::string& host_name)
{
    std::vector<embedded::service_record_view> records = subnet_->service_records();
    std::erase_if(records, [&](const auto& record) { return record.host_name != host_name; });
    expect(!records.empty(), "there is a record of " + host_name);
    expect(records.size() == 1, "there is one record of " + host_name + " only");
    return records.front();
}

void stage::begin(size_t number, const std::string& title)
{
    for (size_t i = 0; i < hosts_.size(); ++i)
        hosts_[i]->machine().log.lines_from(log_positions_[i], SIZE_MAX, &log_positions_[i]);
    if (recorder_) {
        recorder_->note_table(time_->now());
        recorder_->note(time_->now(), "step", {{"text", std::to_string(number) + ". " + title}});
    }
    std::printf("%s%2zu. %-86s%8.3f s%s\n", is_terminal_ ? bold : "", number, title.c_str(),
                static_cast<double>(time_->now()) / 1000, is_terminal_ ? plain : "");
}

void stage::say(const std::string& fact) const
{
    std::printf("    %s\n", fact.c_str());
}

void stage::say(const std::string& question, const world::resolution& answer) const
{
    std::string text = answer.reason;
    if (answer.status == ibat_stat_ok) {
        const std::string address = world::format_ipv4(answer.ip);
        const bool is_about_address = question.ends_with(address);
        text = fmt::format("{}, from {}", is_about_address ? world::format_gid(answer.gid) : address,
                           answer.from_cache ? "IBAT's cache" : "the SA");
    }
    if (answer.duration_ticks > 0) text += fmt::format(", after {} ms", answer.duration_ticks);
    say(question + ": " + text);
}

void stage::show_records()
{
    constexpr size_t indent = 4;
    nlohmann::json records = nlohmann::json::array();
    for (const embedded::service_record_view& record : subnet_->service_records())
        records.push_back(console::record_answer(record));
    std::fputs(console::format_table(console::record_rows(records), indent).c_str(), stdout);
}

void stage::quote(world::host& host, const std::string& fragment)
{
    const auto entry = std::ranges::find(hosts_, &host, &std::unique_ptr<world::host>::get);
    assert(entry != hosts_.end());
    const auto index = static_cast<size_t>(entry - hosts_.begin());
    uint64_t next_position = 0;
    for (const kernel::log_line& line :
         host.machine().log.lines_from(log_positions_[index], SIZE_MAX, &next_position)) {
        if (line.text.find(fragment) == std::string::npos) continue;
        std::printf("    %s%s %s%s\n", is_terminal_ ? dim : "", host.name().c_str(), kernel::format_line(line).c_str(),
                    is_terminal_ ? plain : "");
        return;
    }
    throw step_failed("the log of " + host.name() + " says '" + fragment + "'");
}

} // namespace cli
