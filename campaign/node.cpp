#include "campaign/node.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "campaign/tested-fabric.h"
#include "console/host-plans.h"
#include "host/exec/print-capture.h"
#include "host/world/text.h"

namespace campaign
{

namespace
{

constexpr uint64_t delete_wait_ticks = 20; // without an answer to a Delete, the service gives up after this time

world::host_plan plan_of(size_t number, const host_shape& shape)
{
    world::host_plan plan;
    plan.name = "node" + std::to_string(number);
    plan.hcas.clear();
    for (int i = 0; i < shape.hcas; ++i) plan.hcas.push_back({"mthca" + std::to_string(i), shape.ports});
    plan.registry = {console::trace_setting(shape.trace_level)};
    return plan;
}

// Checks an HCA in a report: only its active port may be in the state "Active". Returns the contradiction, or an empty
// text.
std::string contradiction_in(const console::json& hca)
{
    console::json active_port; // null if none
    for (const console::json& port : hca["ports"]) {
        if (port["state"] != "Active") continue;
        if (!active_port.is_null()) return "there are two active ports";
        active_port = port["port"];
    }
    return active_port == hca["active_port"] ? "" : "the report's active_port is not the port in state Active";
}

} // namespace

node::node(tested_fabric& fabric, size_t number, const host_shape& shape)
    : fabric(fabric), number(number),
      host(*fabric.simulation, world::add_hcas(fabric.subnet, plan_of(number, shape)).value(), plan_of(number, shape),
           fabric.module_folder, 1 + number),
      harm_(std::make_unique<harm_watch>())
{
    hcas = machine().hcas();
    if (shape.has_models)
        for (fabric::hca* each : hcas) {
            std::array<fabric::gid_bytes, 2> gids{};
            for (int port = 1; port <= each->port_count(); ++port)
                gids[static_cast<size_t>(port - 1)] = each->read_port(port).gids[0];
            models.emplace_back(each->name(), each->port_count(), gids);
        }
    if (shape.has_watching_ucm) ucm = std::make_unique<watching_ucm>(*this);
    address.assign(hcas.size(), next_address());
    name = next_name(0);
    if (fabric.recorder()) fabric.recorder()->follow(host.name(), machine());
    machine().log.follow([this](const kernel::log_line& line) { check_line(line.text); });
}

node::~node() = default;

void node::check_line(const std::string& line)
{
    fabric.note(host.name(), line);
    const exec::task& task = *exec::current_task();
    std::string fault;
    if (line.find("gsi_post_send_dtgrm() on dtgrm") != std::string::npos) sent_ticks_[&task] = fabric.now();
    if (line.find("timeout on send DEL SR MAD") != std::string::npos && !task.signal) {
        const uint64_t waited_ticks = fabric.now() - sent_ticks_[&task];
        if (waited_ticks != delete_wait_ticks)
            fault = "the wait for the answer to a Delete took " + std::to_string(waited_ticks) + " ticks";
    }
    for (port_model& model : models)
        if (fault.empty()) fault = model.check_line(task, line, fabric.now() - disturbed_tick > harm_lasts_ticks);
    if (!fault.empty()) fabric.violate(host.name() + ": " + fault + " (" + line + ")");
}

void node::start(const char* task_name, std::function<void()> body)
{
    running_task& entry = *tasks_.emplace_back(std::make_unique<running_task>());
    entry.task = &machine().start(task_name, [&entry, work = std::move(body)] {
        work();
        entry.has_ended = true;
    });
}

void node::reap()
{
    for (const auto& each : tasks_)
        if (each->has_ended) fabric.simulation->join(*each->task);
    std::erase_if(tasks_, [](const auto& each) { return each->has_ended; });
}

uint32_t node::next_address()
{
    assert(number < UINT8_MAX && address_count_ <= UINT16_MAX); // otherwise an address would be given twice
    const uint32_t version = address_count_++;
    const uint8_t octets[] = {10, static_cast<uint8_t>(number + 1), static_cast<uint8_t>(version >> 8),
                              static_cast<uint8_t>(version)};
    uint32_t ip;
    memcpy(&ip, octets, sizeof ip);
    given_addresses.push_back(ip);
    return ip;
}

// A quarter of the names have 30 or 40 characters. A record has space for 30.
std::string node::next_name(uint32_t random)
{
    std::string next = host.name() + "-" + std::to_string(name_count_++);
    if (random % 8 < 2) next.resize(random % 8 == 0 ? 30 : 40, 'x');
    given_names.push_back(next.substr(0, 30));
    return next;
}

void node::change_identity(const std::function<bool()>& change, const std::function<void()>& on_certain)
{
    const bool is_alone = running_changes_++ == 0;
    const uint64_t change_number = ++change_count_;
    const uint64_t begin_tick = fabric.now();
    is_name_certain = is_address_certain = false;
    const bool is_success = change();
    assert(running_changes_ > 0);
    --running_changes_;
    const bool stayed_alone = is_alone && change_count_ == change_number;
    if (is_success && stayed_alone && fabric.network.was_quiet_since(begin_tick) && harm().was_quiet_since(begin_tick))
        on_certain();
    disturbed_tick = fabric.now();
}

bool node::write_control(const std::string& text, std::string* output)
{
    const exec::print_capture capture(exec::print_capture::also_log);
    const int size = machine().proc.write(console::control_file, text);
    if (output) *output = capture.text();
    return size == static_cast<int>(text.size());
}

console::json node::read_control()
{
    std::string file, text;
    {
        const exec::print_capture capture(exec::print_capture::also_log);
        if (machine().proc.read(console::control_file, 0, 1, &file) < 0) return nullptr;
        text = capture.text();
    }
    const console::json report = console::parse_control_report(text);
    if (verification_act_ && report["verification"] == verification_) {
        fabric.mark(*verification_act_);
        verification_act_.reset();
    }
    const console::json& reported_hcas = report["hcas"];
    for (size_t i = 0; i < reported_hcas.size(); ++i) {
        std::string fault = contradiction_in(reported_hcas[i]);
        if (fault.empty() && i < models.size()) fault = models[i].compare(reported_hcas[i]);
        if (!fault.empty()) fabric.violate(host.name() + ": " + fault);
    }
    return reported_hcas;
}

void node::expect_verification_settings(const act& act, console::json verification)
{
    const console::json default_verification = {{"period", 60}, {"skew", 1}};
    if (verification == default_verification) return; // a report shows the defaults even without the act
    verification_act_ = act;
    verification_ = std::move(verification);
}

bool node::load(const std::string& module)
{
    const std::string image = fabric.module_folder + "/" + module + ".so";
    if (module == "ucm" && ucm) return false; // watching_ucm replaces UCM and has published the same names
    if (module != "ats") return static_cast<bool>(machine().modules.insmod(image, ""));
    bool is_loaded = false;
    const uint32_t ip = address[0];
    const std::string host_name = name;
    const std::string parameters = "ats_ipaddr_str=" + world::format_ipv4(ip) + " ats_hostName_str=" + host_name;
    change_identity(
        [&] {
            is_loaded = static_cast<bool>(machine().modules.insmod(image, parameters));
            return is_loaded;
        },
        [&] {
            std::ranges::fill(address, ip);
            is_name_certain = is_address_certain = true;
            name_tick = fabric.now();
        });
    return is_loaded;
}

bool node::unload(const std::string& module)
{
    // A host without an active port cannot delete its record. Immediately after a change, a host may have no active
    // port yet.
    const auto is_settled = [&] {
        bool has_links = true;
        for (size_t hca = 0; hca < hcas.size(); ++hca) has_links = has_links && has_link(hca);
        return has_links && fabric.now() - disturbed_tick > harm_lasts_ticks;
    };
    const bool was_settled = is_settled();
    if (!machine().modules.rmmod(module)) return false;
    if (module == "ats" && !(was_settled && is_settled())) may_have_left_records = true;
    for (question& each : questions)
        if (module == "ats" && each.is_of_service)
            each.is_closed = true; // ats drops its open questions without a callback
    disturbed_tick = fabric.now();
    return true;
}

bool node::has_link(size_t hca)
{
    for (int port = 1; port <= hcas[hca]->port_count(); ++port)
        if (hcas[hca]->read_port(port).state == fabric::link_state::active) return true;
    return false;
}

} // namespace campaign
