#include "tools/chaos/host.h"

#include <csignal>
#include <fstream>
#include <iterator>
#include <sstream>
#include <unistd.h>

namespace chaos
{

namespace
{

// The service tries to write its metrics every 15 seconds.
constexpr auto longest_metrics_period = 40s;

std::string text_of(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// Returns the time of the last write to a file. Returns the earliest possible time if the file is missing.
std::filesystem::file_time_type time_of(const std::string& path)
{
    std::error_code error;
    return std::filesystem::last_write_time(path, error);
}

} // namespace

host::host(fabric_tools::ibsim_fabric& net, int number, std::string gid, const host_options& options,
           std::string recordings_folder)
    : net_(net), number_(number), gid_(std::move(gid)), recordings_folder_(std::move(recordings_folder)),
      modules_(options.modules), disk_(net.folder() + "/disk" + std::to_string(number), options.has_small_disk),
      last_address_(address(0)), last_name_(name())
{
}

std::string host::address(int number) const
{
    return "10.0." + std::to_string(number_) + "." + std::to_string(number + 1);
}

std::string host::new_name(int number) const
{
    return name() + "-" + std::to_string(number);
}

// The host checks its record every few seconds, and its cache entries expire after 2 seconds. Therefore the checks at
// the end of a round of the chaos run do not wait long.
void host::write_configuration() const
{
    std::ofstream(net_.folder() + "/" + name() + ".toml")
        << "[fabric]\nkind = \"umad\"\nport_interval_ms = 50\ncapture = \"" << disk_.folder() << "/host.pcap\"\n"
        << "[metrics]\ntextfile = \"" << disk_.folder() << "\"\n"
        << "[[host]]\nname = \"" << last_name_ << "\"\naddress = \"" << last_address_ << "\"\n"
        << "verify_seconds = 3\nverify_skew_percent = 50\n"
        << "[host.ibat]\nibat_lifetime_seconds = 2\nibat_negative_seconds = 1\n";
}

void host::start()
{
    addresses_ = {last_address_};
    names_ = {last_name_};
    known_addresses_.insert(last_address_);
    has_open_orders_ = false;
    first_resource_use_.reset();
    old_metrics_.reset();
    write_configuration();
    recording_ = recordings_folder_ + "/" + name() + "-" + std::to_string(++starts_) + ".jsonl";
    std::vector<std::string> arguments = {
        fabric_tools::ats_program(), "run",      "--config", net_.folder() + "/" + name() + ".toml", "--socket",
        disk_.folder() + "/socket",  "--record", recording_};
    if (!modules_.empty()) arguments.insert(arguments.end(), {"--modules", modules_});
    program_ = net_.start(name(), name(), arguments);
    is_running_ = true;
    if (!program_->wait_line("clients are served", 30s))
        throw failure{name() + " does not start", "it serves clients within 30 s", program_->output()};
    recording_begin_ = clock::now() - std::chrono::milliseconds(last_recorded_tick());
}

// Returns the time of the last event in the recording, in ms since the start of the service.
uint64_t host::last_recorded_tick() const
{
    std::ifstream lines(recording_);
    uint64_t tick = 0;
    for (std::string line; std::getline(lines, line);)
        if (const json event = json::parse(line, nullptr, false); event.is_object()) tick = event.value("t", tick);
    return tick;
}

void host::kill()
{
    net_.kill(*program_);
    is_running_ = is_paused_ = false;
}

void host::stop()
{
    const std::optional<int> code = program_->stop(40s);
    is_running_ = is_paused_ = false;
    const bool is_capture_cut = disk_.was_full() && output().find("cannot write the capture") != std::string::npos;
    if (code != 0 && !(code == 1 && is_capture_cut))
        throw failure{name() + " does not end in order", "exit code 0 within 40 s",
                      (code ? "exit code " + std::to_string(*code) : "no end") + "\n" + output()};
}

void host::pause()
{
    program_->signal(SIGSTOP);
    is_paused_ = true;
}

void host::resume()
{
    program_->signal(SIGCONT);
    is_paused_ = false;
}

json host::ask(std::vector<std::string> command) const
{
    return fabric_tools::ask_service(net_, disk_.folder() + "/socket", std::move(command));
}

void host::order(const std::string& command, const std::string& value, std::set<std::string>& values)
{
    const json answer = ask({command, value});
    if (answer.is_object() && answer.contains("done")) {
        values = {value};
        return;
    }
    values.insert(value);
    has_open_orders_ = true;
}

void host::set_address(int number)
{
    last_address_ = address(number);
    known_addresses_.insert(last_address_);
    order("set-address", last_address_, addresses_);
}

void host::set_name(int number)
{
    last_name_ = new_name(number);
    order("set-name", last_name_, names_);
}

void host::reload(int number)
{
    last_address_ = address(number);
    known_addresses_.insert(last_address_);
    last_name_ = new_name(number);
    addresses_.insert(last_address_);
    names_.insert(last_name_);
    has_open_orders_ = true;
    write_configuration();
    program_->signal(SIGHUP);
}

void host::repeat_orders()
{
    has_open_orders_ = false;
    order("set-address", last_address_, addresses_);
    order("set-name", last_name_, names_);
}

void host::fill_disk()
{
    disk_.fill();
}

void host::make_room()
{
    const bool must_complain = disk_.is_small() && is_running_;
    const auto has_noticed = [&] { return complains_of_disk() || has_ended_by_itself(); };
    if (must_complain && !fabric_tools::wait_until(has_noticed, longest_metrics_period))
        throw failure{name() + " does not notice that its disk is full", "a message that its metrics are not written",
                      output()};
    if (must_complain) old_metrics_ = time_of(metrics_path());
    disk_.empty();
}

// Returns true if the last message about the metrics is that they cannot be written.
bool host::complains_of_disk() const
{
    const std::string messages = output();
    const size_t complaint = messages.rfind("the metrics file is not written, it is tried again");
    const size_t relief = messages.rfind("the metrics file is not written: this is over");
    return complaint != std::string::npos && (relief == std::string::npos || relief < complaint);
}

bool host::lacks_metrics() const
{
    if (!old_metrics_) return false;
    if (complains_of_disk() || time_of(metrics_path()) == *old_metrics_) return true;
    std::istringstream lines(text_of(metrics_path()));
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with("ats_registered{") && line.ends_with("} 1")) return false;
    return true;
}

resources host::resource_use() const
{
    const std::string process = "/proc/" + std::to_string(program_->pid());
    std::error_code error;
    const auto descriptors = std::filesystem::directory_iterator(process + "/fd", error);
    resources use{.descriptors = std::distance(begin(descriptors), end(descriptors))};
    std::istringstream pages(text_of(process + "/statm"));
    long all = 0, resident = 0;
    pages >> all >> resident;
    use.resident_kib = resident * (sysconf(_SC_PAGESIZE) / 1024);
    return use;
}

const resources& host::first_resource_use()
{
    if (!first_resource_use_) first_resource_use_ = resource_use();
    return *first_resource_use_;
}

std::set<std::string> host::possible_records() const
{
    std::set<std::string> records;
    for (const std::string& address : addresses_)
        for (const std::string& name : names_) records.insert(address + " " + name);
    return records;
}

} // namespace chaos
