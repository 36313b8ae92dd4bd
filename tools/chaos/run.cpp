#include "tools/chaos/run.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace chaos
{

namespace
{

using namespace std::chrono_literals;

constexpr auto longest_wait = 5s;

std::vector<std::string> all_nodes(int hosts)
{
    return fabric_tools::node_names(hosts, {"sm1", "sm2", tool_node});
}

} // namespace

run::run(int hosts, const std::string& recordings_folder, const host_options& options)
    : recordings_folder_(recordings_folder), net_(all_nodes(hosts)), sms_(net_)
{
    for (int number = 1; number <= hosts; ++number) {
        const std::string guid = net_.run(fabric_tools::node_name(number), {"ibstat", "-p"});
        if (guid.size() < 18) throw failure{"ibstat shows no port", "a GUID of 16 digits", guid};
        std::string gid = "0xFE80000000000000" + guid.substr(2, 16);
        std::ranges::transform(gid.begin() + 2, gid.end(), gid.begin() + 2, ::toupper);
        hosts_.push_back(std::make_unique<host>(net_, number, gid, options, recordings_folder));
    }
}

void run::begin()
{
    current_act_ = "the start";
    sms_.start(false);
    for (const auto& each : hosts_) each->start();
    settle();
}

void run::carry_out(const round& round)
{
    faults_.clear();
    is_sa_disturbed_ = false;
    for (const act& act : round.acts) {
        current_act_ = describe(act);
        ++figures_.acts[act.kind];
        begin_act(act);
        for (int i = 0; i < act.lookups; ++i) look_up_all();
    }
    current_act_ = "the end of the faults";
    heal(round);
    settle();
    ++figures_.rounds;
}

void run::end()
{
    current_act_ = "the end";
    for (const auto& each : hosts_)
        if (each->is_running()) each->stop();
    settle();
}

// Waits up to `longest_wait` until no SM sweeps. If a link goes down or a program ends during a sweep, ibsim loses
// answers to the SM, and the SM hangs. If an SM does not end its sweep in time, settle() later replaces all SMs.
void run::wait_quiet()
{
    fabric_tools::wait_until([&] { return sms_.are_quiet(); }, longest_wait);
}

void run::begin_act(const act& act)
{
    if (!is_sa_disturbed_) wait_quiet();
    if (act.host > 0)
        act_on_host(act);
    else
        act_on_sm(act);
}

void run::act_on_sm(const act& act)
{
    is_sa_disturbed_ = true;
    note(act, act.kind == act_kind::start_sm ? "moment" : "begin");
    if (act.kind == act_kind::kill_sm) sms_.kill_master();
    if (act.kind == act_kind::restart_sm) sms_.stop_all();
    if (act.kind == act_kind::pause_sm) sms_.pause();
    if (act.kind == act_kind::start_sm) {
        // If the new SM becomes the master, the present SM still has the records of these hosts. The present SM may
        // become the master again later. The checks must then allow the records of a host that has ended.
        if (act.number == 1)
            for (const auto& each : hosts_)
                if (each->is_running()) sms_.keep(each->gid(), each->possible_records());
        sms_.start(act.number == 1);
    }
    if (act.kind != act_kind::start_sm) faults_.push_back(act);
}

void run::act_on_host(const act& act)
{
    host& host = host_of(act);
    bool ends_later = false;
    note(act, act.kind == act_kind::pause_host || act.kind == act_kind::unplug || act.kind == act_kind::lose ||
                      act.kind == act_kind::fill_disk
                  ? "begin"
                  : "moment");
    switch (act.kind) {
    case act_kind::kill_host:
        allow_remaining_records(host);
        host.kill();
        break;
    case act_kind::stop_host:
        if (is_sa_disturbed_ ||
            std::ranges::any_of(faults_, [&](const chaos::act& each) { return each.host == act.host; }))
            allow_remaining_records(host);
        host.stop();
        break;
    case act_kind::pause_host:
        host.pause();
        ends_later = true;
        break;
    case act_kind::unplug:
        net_.unplug(host.name());
        ends_later = true;
        break;
    case act_kind::lose:
        net_.lose(host.name(), act.number);
        ends_later = true;
        break;
    case act_kind::set_address:
        host.set_address(act.number);
        break;
    case act_kind::set_name:
        host.set_name(act.number);
        break;
    case act_kind::reload:
        host.reload(act.number);
        break;
    case act_kind::fill_disk:
        host.fill_disk();
        ends_later = true;
        break;
    default:
        break;
    }
    if (ends_later) faults_.push_back(act);
}

void run::heal(const round& round)
{
    // Full disks get space last, because a service must first run and notice its full disk.
    std::stable_partition(faults_.begin(), faults_.end(),
                          [](const act& act) { return act.kind != act_kind::fill_disk; });
    for (const act& act : faults_) {
        note(act, "end");
        switch (act.kind) {
        case act_kind::pause_host:
            host_of(act).resume();
            break;
        case act_kind::unplug:
            net_.plug(host_of(act).name());
            break;
        case act_kind::lose:
            net_.lose(host_of(act).name(), 0);
            break;
        case act_kind::fill_disk:
            host_of(act).make_room();
            break;
        case act_kind::pause_sm:
            sms_.resume();
            break;
        case act_kind::kill_sm:
        case act_kind::restart_sm:
            if (sms_.is_empty()) sms_.start(false);
            break;
        default:
            break;
        }
    }
    faults_.clear();
    for (const int number : round.returning_hosts) hosts_[static_cast<size_t>(number - 1)]->start();
}

void run::allow_remaining_records(const host& host)
{
    sms_.keep(host.gid(), host.possible_records());
}

void run::note(const act& act, const char* phase)
{
    const bool is_end = std::string(phase) == "end";
    int number = 0;
    for (const noted_act& each : noted_acts_)
        if (std::string(each.phase) != "end") ++number;
    if (is_end)
        for (const noted_act& each : noted_acts_)
            if (each.act.kind == act.kind && each.act.host == act.host) number = each.number;
    noted_acts_.push_back({clock::now(), phase, number, act});
}

void run::keep_logs(const std::optional<failure>& failure)
{
    for (const auto& each : hosts_) annotate(*each, failure);
    namespace files = std::filesystem;
    const auto keep = [&](const files::path& path, const std::string& name) {
        files::copy_file(path, recordings_folder_ + "/" + name, files::copy_options::overwrite_existing);
    };
    for (const auto& entry : files::recursive_directory_iterator(net_.folder())) {
        const std::string name = entry.path().filename(), folder = entry.path().parent_path().filename();
        if (name == "out" && !folder.starts_with("tool-")) keep(entry.path(), folder + ".log");
        if (name == "ibsim.out" || name.ends_with(".toml")) keep(entry.path(), name);
        if (name == "host.pcap") keep(entry.path(), folder + ".pcap");
    }
}

const std::string& run::recording_of(const failure& failure) const
{
    const auto is_named = [&](const auto& host) { return failure.text.find(host->name()) != std::string::npos; };
    const auto named = std::ranges::find_if(hosts_, is_named);
    return (named == hosts_.end() ? hosts_.front() : *named)->recording();
}

// Inserts the acts on this host and on SMs, and the failure, into the recording of the host's last process. If the
// process still runs, it continues to write to the old file. Therefore a new file takes the name of the old one.
void run::annotate(const host& host, const std::optional<failure>& failure) const
{
    std::multimap<uint64_t, std::string> additions;
    const auto add = [&](clock::time_point time, json fields) {
        if (time < host.recording_begin()) return;
        const auto tick = std::chrono::duration_cast<std::chrono::milliseconds>(time - host.recording_begin()).count();
        json event = {{"t", tick}};
        event.update(fields);
        additions.emplace(static_cast<uint64_t>(tick), event.dump());
    };
    for (const noted_act& each : noted_acts_)
        if (each.act.host == 0 || each.act.host == host.number())
            add(each.time, {{"e", "act"},
                            {"number", each.number},
                            {"phase", each.phase},
                            {"name", describe(each.act)},
                            {"host", host.name()},
                            {"harm", each.act.host == 0 ? "network" : "host"},
                            {"a", each.act.number},
                            {"b", each.act.lookups}});
    if (failure)
        add(clock::now(), {{"e", "violation"},
                           {"text", failure->text},
                           {"expected", failure->expected},
                           {"actual", failure->actual}});
    std::ifstream lines(host.recording());
    std::ostringstream all;
    for (std::string line; std::getline(lines, line);) {
        const json event = json::parse(line, nullptr, false);
        if (!event.is_object()) continue; // a line that was cut off when the process was killed
        for (auto next = additions.begin(); next != additions.end() && next->first < event.value("t", uint64_t{0});
             next = additions.erase(next))
            all << next->second << "\n";
        all << line << "\n";
    }
    for (const auto& [tick, line] : additions) all << line << "\n";
    const std::string draft = host.recording() + ".new";
    std::ofstream(draft) << all.str();
    std::filesystem::rename(draft, host.recording());
}

} // namespace chaos
