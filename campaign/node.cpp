#include "campaign/node.h"

#include <algorithm>
#include <cstring>

#include "campaign/tested-fabric.h"
#include "host/exec/print-capture.h"
#include "host/world/text.h"

namespace campaign
{

namespace
{

constexpr const char* control_file = "dorvex/ats/control";
constexpr uint64_t delete_wait_ticks = 20;

world::host_plan plan_of(size_t number, const host_shape& shape)
{
    world::host_plan plan;
    plan.name = "node" + std::to_string(number);
    plan.hcas.clear();
    for (int i = 0; i < shape.hcas; ++i) plan.hcas.push_back({"mthca" + std::to_string(i), shape.ports});
    plan.trace_level = shape.trace_level;
    return plan;
}

// The one active port is that which is said to be.
std::string contradiction_in(const console::json& hca)
{
    console::json active; // null: none
    for (const console::json& port : hca["ports"]) {
        if (port["state"] != "Active") continue;
        if (!active.is_null()) return "there are two active ports";
        active = port["port"];
    }
    return active == hca["active_port"] ? "" : "the active port is not the one that is in that state";
}

} // namespace

node::node(arena& at, size_t its_number, const host_shape& shape)
    : in(at), number(its_number), host(*in.sim, world::add_hcas(in.net, plan_of(number, shape)).value(),
                                       plan_of(number, shape), in.module_folder, 1 + number),
      harm_(std::make_unique<harm_watch>())
{
    hcas = machine().hcas();
    if (shape.trace_level >= world::trace_level_debug)
        for (const fabric::hca* each : hcas) {
            std::array<fabric::gid_bytes, 2> gids{};
            for (int port = 1; port <= each->port_count(); ++port)
                gids[static_cast<size_t>(port - 1)] = const_cast<fabric::hca*>(each)->read_port(port).gids[0];
            models.emplace_back(each->name(), each->port_count(), gids);
        }
    if (shape.has_watching_ucm) ucm = std::make_unique<watching_ucm>(*this);
    address.assign(hcas.size(), next_address());
    name = next_name(0);
    machine().log.follow([this](const kernel::log_line& line) { logged(line.text); });
}

node::~node() = default;

void node::logged(const std::string& line)
{
    in.note(host.name(), line);
    const exec::task& by = *exec::current_task();
    std::string wrong;
    if (line.find("gsi_post_send_dtgrm() on dtgrm") != std::string::npos) sent_ticks_[&by] = in.now();
    if (line.find("timeout on send DEL SR MAD") != std::string::npos && !by.signal)
        if (const uint64_t took = in.now() - sent_ticks_[&by]; took != delete_wait_ticks)
            wrong = "a delete was waited for " + std::to_string(took) + " ticks";
    for (port_model& model : models)
        if (wrong.empty()) wrong = model.logged(by, line, in.now() - disturbed_tick > harm_lasts_ticks);
    if (!wrong.empty()) in.violate(host.name() + ": " + wrong + " (" + line + ")");
}

void node::start(const char* task_name, std::function<void()> body)
{
    running_task& started = *tasks_.emplace_back(std::make_unique<running_task>());
    started.task = &machine().start(task_name, [&started, work = std::move(body)] {
        work();
        started.has_ended = true;
    });
}

void node::reap()
{
    for (const auto& each : tasks_)
        if (each->has_ended) in.sim->join(*each->task);
    std::erase_if(tasks_, [](const auto& each) { return each->has_ended; });
}

uint32_t node::next_address()
{
    const uint32_t version = addresses_made_++;
    const uint8_t octets[] = {10, static_cast<uint8_t>(number + 1), static_cast<uint8_t>(version >> 8),
                              static_cast<uint8_t>(version)};
    uint32_t ip;
    memcpy(&ip, octets, sizeof ip);
    addresses_given.push_back(ip);
    return ip;
}

// Some names have more than the 30 characters that are registered, and some just those.
std::string node::next_name(uint32_t how)
{
    std::string given = host.name() + "-" + std::to_string(names_made_++);
    if (how % 8 < 2) given += std::string((how % 8 == 0 ? 30 : 40) - given.size(), 'x');
    names_given.push_back(given.substr(0, 30));
    return given;
}

void node::change_identity(const std::function<bool()>& change, const std::function<void()>& settled)
{
    const bool alone = changes_running_++ == 0;
    const uint64_t began = ++changes_begun_, began_tick = in.now();
    name_is_certain = address_is_certain = false;
    const bool went_well = change();
    --changes_running_;
    if (went_well && alone && changes_begun_ == began && in.network.quiet_since(began_tick) &&
        harm().quiet_since(began_tick))
        settled();
    disturbed_tick = in.now();
}

bool node::write_control(const std::string& text, std::string* said)
{
    const exec::print_capture capture(exec::print_capture::also_log);
    const int taken = machine().proc.write(control_file, text);
    if (said) *said = capture.text();
    return taken == static_cast<int>(text.size());
}

console::json node::read_control()
{
    std::string file, text;
    {
        const exec::print_capture capture(exec::print_capture::also_log);
        if (machine().proc.read(control_file, 0, 1, &file) < 0) return nullptr;
        text = capture.text();
    }
    const console::json report = console::parse_control_report(text);
    if (verification_act_ && report["verification"] == verification_) {
        in.mark(*verification_act_);
        verification_act_.reset();
    }
    const console::json& shown = report["hcas"];
    for (size_t i = 0; i < shown.size(); ++i) {
        std::string wrong = contradiction_in(shown[i]);
        if (wrong.empty() && i < models.size()) wrong = models[i].compare(shown[i]);
        if (!wrong.empty()) in.violate(host.name() + ": " + wrong);
    }
    return shown;
}

void node::expect_verification(const act& act, console::json verification)
{
    const console::json by_default = {{"period", 60}, {"skew", 1}};
    if (verification == by_default) return; // it may be shown without the act
    verification_act_ = act;
    verification_ = std::move(verification);
}

bool node::load(const std::string& module)
{
    const std::string image = in.module_folder + "/" + module + ".so";
    if (module == "ucm" && ucm) return false; // its names are taken
    if (module != "ats") return static_cast<bool>(machine().modules.insmod(image, ""));
    bool loaded = false;
    const uint32_t ip = address[0];
    const std::string host_name = name;
    change_identity(
        [&] {
            return loaded = static_cast<bool>(machine().modules.insmod(
                       image, "ats_ipaddr_str=" + world::format_ipv4(ip) + " ats_hostName_str=" + host_name));
        },
        [&] {
            std::ranges::fill(address, ip);
            name_is_certain = address_is_certain = true;
            name_tick = in.now();
        });
    return loaded;
}

bool node::unload(const std::string& module)
{
    // A host that is not sure of its active port, or has none, cannot delete.
    const auto is_settled = [&] {
        bool has_links = true;
        for (size_t hca = 0; hca < hcas.size(); ++hca) has_links = has_links && has_link(hca);
        return has_links && in.now() - disturbed_tick > harm_lasts_ticks;
    };
    const bool was_settled = is_settled();
    if (!machine().modules.rmmod(module)) return false;
    if (module == "ats" && !(was_settled && is_settled())) may_have_left_records = true;
    for (question& each : questions)
        if (module == "ats" && each.of_service) each.is_closed = true; // dropped without a word, if still open
    disturbed_tick = in.now();
    return true;
}

bool node::has_link(size_t hca)
{
    for (int port = 1; port <= hcas[hca]->port_count(); ++port)
        if (hcas[hca]->read_port(port).state == fabric::link_state::active) return true;
    return false;
}

} // namespace campaign
