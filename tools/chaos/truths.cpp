// The checks of a chaos run. During the faults of a round, no answer may be wrong. After the round, when no fault is
// active, the hosts, the SA's records and all answers must agree.
#include <algorithm>
#include <sstream>

#include "tools/chaos/run.h"

namespace chaos
{

namespace
{

const std::string unused_address = "10.9.9.9";
constexpr auto longest_settling = 90s;
constexpr auto patience_of_administrator = 15s; // then settle() repeats orders that were not confirmed
// settle() replaces the SMs if the SA does not answer, or the SMs are not quiet, for this time.
constexpr auto longest_silence = 20s;
constexpr long most_new_descriptors = 4;

#ifndef __has_feature
#define __has_feature(name) 0
#endif
// Memory that a host has freed, but that the address sanitizer keeps.
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
constexpr long most_kept_kib = 256L * 1024;
#else
constexpr long most_kept_kib = 0;
#endif
constexpr long most_new_kib = 16L * 1024 + most_kept_kib;

std::string join(const std::set<std::string>& texts, const char* last = " or ")
{
    std::string all;
    for (const std::string& text : texts) all += (all.empty() ? "" : last) + text;
    return all.empty() ? "none" : all;
}

// Returns N for an address 10.0.N.x, which belongs to host N. Returns 0 for other addresses.
int owner_of(const std::string& address)
{
    int owner = 0;
    std::sscanf(address.c_str(), "10.0.%d.", &owner);
    return owner;
}

// ibsim loses the last 32 bytes of a Set. OpenSM replaces them with old bytes of its buffer. The host then reports that
// the SA holds another record, although address and name are the same. Returns true in this case. `host_record` is
// "ADDRESS NAME" of the host.
bool differs_by_ibsim(const json& registration, const std::string& host_record)
{
    const json reason = registration.value("reason", json());
    return reason.is_string() && reason.get<std::string>() == "the SA holds another record: " + host_record;
}

json first_of(const json& status, const char* list)
{
    const json::json_pointer place(std::string("/hosts/0/") + list + "/0");
    return status.is_object() && status.contains(place) ? status[place] : json::object();
}

} // namespace

void run::look_up_all()
{
    std::vector<host*> askers;
    for (const auto& each : hosts_)
        if (each->is_running() && !each->is_paused()) askers.push_back(each.get());
    if (askers.empty()) return;
    const host& asker = *askers[static_cast<size_t>(lookup_count_++) % askers.size()];
    std::vector<std::string> addresses = {"resolve"}, gids = {"reverse"};
    for (const auto& each : hosts_) {
        if (each.get() == &asker) continue;
        addresses.insert(addresses.end(), each->addresses().begin(), each->addresses().end());
        gids.push_back(each->gid());
    }
    for (const std::vector<std::string>& question : {addresses, gids}) {
        const json answers = asker.ask(question);
        if (!answers.is_array())
            throw failure{asker.name() + " gives no answer", "a list of answers",
                          answers.dump() + "\n" + asker.output()};
        for (const json& answer : answers) {
            ++figures_.questions;
            if (answer.value("status", "") != "ok") {
                ++figures_.unanswered;
                continue;
            }
            const size_t owner = static_cast<size_t>(owner_of(answer.value("address", "")));
            const std::string expected =
                owner >= 1 && owner <= hosts_.size() ? hosts_[owner - 1]->gid() : "no such address";
            if (answer.value("gid", "") != expected)
                throw failure{asker.name() + " gives a wrong answer about " + answer.value("asked", ""),
                              "the GID " + expected + ", or a refusal", answer.dump()};
        }
    }
}

void run::settle()
{
    const auto begin = clock::now();
    auto deadline = begin + longest_settling;
    silent_since_.reset();
    std::optional<failure> fault;
    const auto is_right = [&] {
        fault = first_failure();
        if (!fault) return true;
        if (silent_since_ && clock::now() - *silent_since_ > longest_silence) {
            ++figures_.sms_lost;
            sms_.kill_all();
            sms_.start(false);
            silent_since_.reset();
            deadline = clock::now() + longest_settling;
        }
        if (clock::now() - begin > patience_of_administrator)
            for (const auto& each : hosts_)
                if (each->is_running() && each->has_open_orders()) {
                    ++figures_.orders_repeated;
                    each->repeat_orders();
                }
        return clock::now() >= deadline;
    };
    fabric_tools::wait_until(is_right, 10 * longest_settling);
    if (fault) throw failure(*fault);
    const auto settling_time = std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - begin);
    figures_.longest_settling = std::max(figures_.longest_settling, settling_time);
}

// Checks the processes, the SMs, the registrations, the answers of the hosts and their metrics, in this order. Returns
// the first fault, or nothing. Throws failure if the process of a host has ended by itself.
std::optional<failure> run::first_failure()
{
    for (const auto& each : hosts_)
        if (const auto fault = each->is_running() ? failure_of_process(*each) : std::nullopt) return fault;
    if (!sms_.are_quiet()) {
        note_silence();
        return failure{"the SM does not end its sweep", "a quiet subnet", "see its log"};
    }
    const auto records = read_records();
    if (!records)
        return failure{"the SA does not answer",
                       "the SA's records within " + std::to_string(longest_silence.count()) + " s", "no answer"};
    for (const auto& each : hosts_)
        if (const auto fault = failure_of_registration(*each, *records)) return fault;
    for (const auto& each : hosts_)
        if (const auto fault = each->is_running() ? failure_of_lookups(*each, *records) : std::nullopt) return fault;
    for (const auto& each : hosts_)
        if (const auto fault = each->is_running() ? failure_of_disk(*each) : std::nullopt) return fault;
    return std::nullopt;
}

std::optional<failure> run::failure_of_process(host& host) const
{
    if (host.has_ended_by_itself()) throw failure{host.name() + " has ended by itself", "it runs", host.output()};
    const resources before = host.first_resource_use(), now = host.resource_use();
    if (now.descriptors > before.descriptors + most_new_descriptors)
        return failure{host.name() + " leaks descriptors", "about " + std::to_string(before.descriptors),
                       std::to_string(now.descriptors)};
    if (now.resident_kib > before.resident_kib + most_new_kib)
        return failure{host.name() + " leaks memory", "about " + std::to_string(before.resident_kib) + " KiB",
                       std::to_string(now.resident_kib) + " KiB"};
    return std::nullopt;
}

// After a full disk has space again, a host must write its metrics again. Returns the fault if the host has not written
// them yet.
std::optional<failure> run::failure_of_disk(const host& host) const
{
    if (!host.lacks_metrics()) return std::nullopt;
    return failure{host.name() + "'s disk has space again, but its metrics are not up to date",
                   "a new file that shows the registration", host.output()};
}

void run::note_silence()
{
    if (!silent_since_) silent_since_ = clock::now();
}

// Reads the hosts' records at the SA with a program that is independent of the service. If the SA answers, clears
// silent_since_. If the SA does not answer, sets silent_since_ (unless it is set) and returns nothing.
std::optional<std::map<std::string, std::string>> run::read_records()
{
    std::vector<std::string> command = {READ_RECORDS};
    for (const auto& each : hosts_) command.push_back(each->gid());
    const std::string output = net_.run(tool_node, command);
    std::map<std::string, std::string> records;
    size_t answers = 0;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line) && line.starts_with("0x"); ++answers) { // else an error message
        std::istringstream words(line);
        std::string gid, p_key, record;
        words >> gid >> p_key >> std::ws;
        if (p_key == "none") continue;
        std::getline(words, record);
        records[gid] = record.empty() ? "several records, or the error " + p_key : record;
    }
    if (answers < hosts_.size()) {
        note_silence();
        return std::nullopt;
    }
    silent_since_.reset();
    return records;
}

std::optional<failure> run::failure_of_registration(host& host, const record_map& records) const
{
    const auto entry = records.find(host.gid());
    const std::string at_sa = entry == records.end() ? "" : entry->second;
    if (!host.is_running()) {
        const std::set<std::string> kept = sms_.kept_of(host.gid());
        if (at_sa.empty() || kept.count(at_sa) > 0) return std::nullopt;
        return failure{"the SA has a record of " + host.name() + ", but this host has ended", join(kept), at_sa};
    }
    const json status = host.ask({"status"});
    const json port = first_of(status, "hcas").value("ports", json::array({json::object()})).at(0);
    const json registration = first_of(status, "registrations");
    if (port.value("state", "") != "Active") return failure{host.name() + "'s port", "state Active", port.dump()};
    const std::string host_record = registration.value("address", "") + " " + registration.value("name", "");
    if (!registration.value("registered", false) && !differs_by_ibsim(registration, host_record))
        return failure{host.name() + " is not registered", "registered with " + join(host.possible_records()),
                       registration.dump()};
    if (host.possible_records().count(host_record) == 0)
        return failure{host.name() + " holds another record than it was told", join(host.possible_records()),
                       host_record};
    if (at_sa != host_record)
        return failure{"the SA's record of " + host.name(), host_record, at_sa.empty() ? "none" : at_sa};
    return std::nullopt;
}

std::optional<failure> run::failure_of_lookups(host& host, const record_map& records)
{
    std::vector<std::string> addresses = {"resolve", unused_address}, gids = {"reverse"};
    std::map<std::string, std::string> expected = {{unused_address, ""}}; // "" means "not found"
    for (const auto& [gid, record] : records) {
        const std::string address = record.substr(0, record.find(' '));
        expected[address] = gid;
        expected[gid] = address;
    }
    for (const auto& each : hosts_) {
        gids.push_back(each->gid());
        for (const std::string& address : each->known_addresses()) addresses.push_back(address);
    }
    for (const std::vector<std::string>& question : {addresses, gids}) {
        const json answers = host.ask(question);
        if (!answers.is_array() || answers.size() + 1 != question.size())
            return failure{host.name() + " gives no answers", std::to_string(question.size() - 1), answers.dump()};
        for (const json& answer : answers) {
            ++figures_.questions;
            const std::string right = expected[answer.value("asked", "")], status = answer.value("status", "");
            const bool is_right =
                right.empty() ? status == "not found" : status == "ok" && answer.value("found", "") == right;
            if (!is_right)
                return failure{host.name() + "'s answer about " + answer.value("asked", ""),
                               right.empty() ? "not found" : right, answer.dump()};
        }
    }
    return std::nullopt;
}

} // namespace chaos
