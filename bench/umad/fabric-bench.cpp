// Measures hosts that use libibumad, on an ibsim fabric with OpenSM. Measures the lookups of a whole host (the program
// ats-lookups), and compares them with bare-lookups, with lookups of client processes, and with saquery. Also measures
// the time until records are registered. Prints the figures. If ibsim, OpenSM or saquery is missing, prints which one,
// and exits with 0.
//   fabric-bench [LOOKUPS]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <sched.h>
#include <unistd.h>

#include "tools/fabric/ats-hosts.h"

namespace
{

using namespace fabric_tools;
using clock = std::chrono::steady_clock;

constexpr int window = 16, large_window = 64;
constexpr int rounds = 9; // number of rounds whose median is printed
constexpr int hosts = most_programs - 3;
constexpr int first_target = 101; // the lookups ask for 10.0.0.101 and the following addresses
const std::string asker = "asker", sm_node = "sm";

std::string target_address(int i)
{
    return address_of(first_target + i);
}

double milliseconds_since(clock::time_point begin)
{
    return std::chrono::duration<double, std::milli>(clock::now() - begin).count();
}

double median(std::vector<double> figures)
{
    std::ranges::sort(figures);
    return figures[figures.size() / 2];
}

// Formats the median, the least and the greatest of some figures, for example "0.95 (0.91 to 0.99)".
std::string spread(const std::vector<double>& figures)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.2f (%.2f to %.2f)", median(figures), std::ranges::min(figures),
                  std::ranges::max(figures));
    return text;
}

struct speed {
    double rate = 0;         // lookups per second
    double processor_us = 0; // processor time of one lookup; 0 if the program does not print it
};

constexpr int fabric_processor = 0, asker_processor = 1;

// Programs that are started while this object exists run only on `processor`. For measure_lookups(), the fabric and the
// asker get one processor each, so they do not take processor time from each other. Does nothing if the machine has no
// such processor.
class processor_pin
{
  public:
    explicit processor_pin(int processor)
    {
        sched_getaffinity(0, sizeof previous_, &previous_);
        cpu_set_t choice;
        CPU_ZERO(&choice);
        CPU_SET(processor, &choice);
        sched_setaffinity(0, sizeof choice, &choice);
    }
    ~processor_pin() { sched_setaffinity(0, sizeof previous_, &previous_); }
    processor_pin(const processor_pin&) = delete;
    processor_pin& operator=(const processor_pin&) = delete;

  private:
    cpu_set_t previous_;
};

[[noreturn]] void fail(const std::string& reason)
{
    throw std::runtime_error(reason);
}

std::vector<std::string> node_list()
{
    std::vector<std::string> nodes = node_names(hosts, {sm_node, asker});
    for (int i = 0; i < large_window; ++i) nodes.push_back("target" + std::to_string(i));
    return nodes;
}

class bench
{
  public:
    explicit bench(std::string lookups) : lookups_(std::move(lookups)) {}

    void run()
    {
        start_sm();
        set_targets();
        measure_lookups("lookups", window, false);
        measure_lookups("lookups", large_window, false);
        measure_lookups("address to path, uncached", window, true);
        measure_clients();
        measure_saquery();
        measure_reregistration();
        measure_registrations();
    }

  private:
    void start_sm()
    {
        const processor_pin pin(fabric_processor);
        sm_ = net_.start_sm(sm_node);
        if (!ibsim_fabric::wait_master(*sm_)) fail("OpenSM does not start: " + sm_->output());
    }

    // Uses the program set-record to register the records that the lookups ask for. Their GIDs belong to nodes that run
    // no program.
    void set_targets()
    {
        for (int i = 0; i < large_window; ++i) {
            const std::string node = "target" + std::to_string(i);
            const std::string guid = net_.run(node, {"ibstat", "-p"}); // "0x", 16 digits and a line end
            if (guid.size() != 19) fail("ibstat shows no port GUID of " + node + ": " + guid);
            const std::string gid = "0xFE80000000000000" + guid.substr(2, 16);
            if (net_.run(asker, {SET_RECORD, gid, "0xFFFF", target_address(i), node}) != "0x0000\n")
                fail("no record of " + node + " with " + gid);
        }
    }

    // Runs the command on the asker's node, and reads the speed from its output. With `is_pinned`, the command runs
    // only on asker_processor.
    speed speed_of(const std::vector<std::string>& command, bool is_pinned = false)
    {
        std::optional<processor_pin> pin;
        if (is_pinned) pin.emplace(asker_processor);
        const std::string output = net_.run(asker, command);
        speed measured;
        if (std::sscanf(output.c_str(), "%lf lookups/s, %lf", &measured.rate, &measured.processor_us) < 1)
            fail(command.front() + ": " + output);
        return measured;
    }

    static std::vector<std::string> with_targets(std::vector<std::string> command, int count)
    {
        for (int i = 0; i < count; ++i) command.push_back(target_address(i));
        return command;
    }

    // Starts a service on the asker's node, and `window` client processes that ask the service, each for another
    // target. Returns the lookups per second of all clients together.
    double rate_of_clients()
    {
        const std::string socket = "/tmp/ats-fabric-bench-" + std::to_string(getpid()) + ".sock";
        const std::unique_ptr<process> service = net_.start(
            asker, "service", {ATS_PROGRAM, "run", "--fabric", "umad", "--address", address_of(1), "--socket", socket});
        if (!service->wait_line("clients are served", 30s)) fail(service->output());
        const double rate = speed_of(with_targets({CLIENT_LOOKUPS, socket, lookups_}, window)).rate;
        service->stop();
        return rate;
    }

    // Measures the programs ats-lookups and bare-lookups, and prints the figures. The two programs alternate, so that
    // other load on the machine affects both equally.
    void measure_lookups(const char* name, int in_flight, bool asks_for_paths)
    {
        std::vector<std::string> ats = {ATS_LOOKUPS, address_of(1), lookups_};
        std::vector<std::string> bare = {BARE_LOOKUPS, target_address(0), lookups_, std::to_string(in_flight)};
        for (std::vector<std::string>* command : {&ats, &bare})
            if (asks_for_paths) command->push_back("path");
        ats = with_targets(ats, in_flight);
        std::vector<double> rates, bare_rates, shares, costs, cost_ratios;
        for (int i = 0; i < rounds; ++i) {
            const speed bare_speed = speed_of(bare, true), ats_speed = speed_of(ats, true);
            rates.push_back(ats_speed.rate);
            bare_rates.push_back(bare_speed.rate);
            shares.push_back(ats_speed.rate / bare_speed.rate);
            costs.push_back(ats_speed.processor_us);
            cost_ratios.push_back(ats_speed.processor_us / bare_speed.processor_us);
        }
        std::printf("%s, %d in flight: %.0f /s; a bare libibumad loop: %.0f /s\n", name, in_flight, median(rates),
                    median(bare_rates));
        std::printf("  ats reaches this share of the loop:          %s   goal: %.2f\n", spread(shares).c_str(),
                    asks_for_paths ? 0.9 : 0.97);
        std::printf("  processor time, %5.2f us, to that of the loop: %s   limit: 1.5\n", median(costs),
                    spread(cost_ratios).c_str());
        std::fflush(stdout);
    }

    void measure_clients()
    {
        const std::vector<std::string> ats = with_targets({ATS_LOOKUPS, address_of(1), lookups_}, window);
        const std::vector<std::string> bare_service = with_targets({BARE_SERVICE, lookups_}, window);
        std::vector<double> rates, shares, bare_service_shares;
        for (int i = 0; i < rounds; ++i) {
            rates.push_back(rate_of_clients());
            shares.push_back(rates.back() / speed_of(ats).rate);
            bare_service_shares.push_back(rates.back() / speed_of(bare_service).rate);
        }
        std::printf("lookups of %d processes through libatsclient: %.0f /s\n", window, median(rates));
        std::printf("  share of ats by itself:                      %s   goal: 0.9\n", spread(shares).c_str());
        std::printf("  share of a bare service for as many:         %s\n", spread(bare_service_shares).c_str());
        std::fflush(stdout);
    }

    void measure_saquery()
    {
        constexpr int queries = 20;
        const auto begin = clock::now();
        for (int i = 0; i < queries; ++i) net_.run(asker, {"saquery", "SR"});
        std::printf("saquery, once per lookup: %.0f /s\n", queries / milliseconds_since(begin) * 1000);
    }

    // Runs the program on the asker's node. Returns two median times in milliseconds: of a registration, and of a round
    // trip to the SA. The second time is 0 if the program does not print it.
    std::pair<double, double> median_times(const char* program)
    {
        constexpr const char* count = "101";
        const std::string output = net_.run(asker, {program, address_of(1), count});
        std::pair<double, double> times;
        if (std::sscanf(output.c_str(), "%lf ms to register, %lf", &times.first, &times.second) < 1) fail(output);
        return times;
    }

    // ibsim does not report the event ClientReregister. Therefore the program `reregistrations` replaces functions of
    // libibverbs, and makes the event itself.
    void measure_reregistration()
    {
#ifdef REREGISTRATIONS
        const auto [registration, round_trip] = median_times(REREGISTRATIONS);
        const auto [bare_registration, none] = median_times(BARE_REGISTRATIONS);
        std::printf(
            "record after reregister   %9.2f ms   ats; a bare loop of the same three questions (PortInfo, Delete, "
            "Set) takes %.2f, one round trip %.2f\n",
            registration, bare_registration, round_trip);
#endif
    }

    void measure_registrations()
    {
        std::vector<std::unique_ptr<fabric_host>> all_hosts;
        for (int i = 1; i <= hosts; ++i) all_hosts.push_back(std::make_unique<fabric_host>(net_, i));
        for (const auto& host : all_hosts)
            if (!host->wait_serving()) fail(host->output());
        const auto record_count = [&] {
            const json records = records_at_sa(net_, asker);
            return std::ranges::count_if(
                records, [](const json& record) { return record.value("host_name", "").starts_with("node"); });
        };
        if (!wait_until([&] { return record_count() == hosts; }, 60s)) fail("not all hosts register");

        std::vector<double> after_link_up;
        for (int i = 0; i < rounds; ++i) after_link_up.push_back(time_link_up(*all_hosts.front()));
        std::printf("record after link-up      %9.0f ms   (goal: 200; the host reads its port every 100 ms)\n",
                    median(after_link_up));

        for (const auto& host : all_hosts) host->ask({"control", "sa_verify_period 1 1"});
        for (const char* period : {"60 s, the default", "1 s"}) {
            sm_->stop();
            const auto begin = clock::now();
            start_sm();
            if (!wait_until([&] { return record_count() == hosts; }, 120s)) fail("records do not come back");
            std::printf("%d records after SM start  %9.0f ms   (records are checked every %s)\n", hosts,
                        milliseconds_since(begin), period);
        }
        for (const auto& host : all_hosts)
            if (host->stop() != 0) fail(host->output());
    }

    // Deletes the host's record while the link is down. Returns the milliseconds from link-up until the SA has the
    // record again.
    double time_link_up(fabric_host& host)
    {
        const std::string gid = host.port().value("gid", "");
        net_.unplug(host.name());
        if (!wait_until([&] { return host.port().value("state", "") == "Down"; }, 30s)) fail("the link stays up");
        const auto own_record_count = [&] { return records_at_sa(net_, asker, {"--gid", gid}).size(); };
        net_.run(asker, {SET_RECORD, "-d", gid, "0xFFFF"});
        if (own_record_count() != 0) fail("the record cannot be removed");
        const auto begin = clock::now();
        net_.plug(host.name());
        if (!wait_until([&] { return own_record_count() == 1; }, 120s)) fail("no record after link-up");
        return milliseconds_since(begin);
    }

    static ibsim_fabric start_fabric()
    {
        const processor_pin pin(fabric_processor);
        return ibsim_fabric(node_list());
    }

    const std::string lookups_;
    ibsim_fabric net_ = start_fabric();
    std::unique_ptr<process> sm_;
};

} // namespace

int main(int count, char** arguments)
{
    if (const auto check = ibsim_fabric::check_programs(); !check) {
        std::printf("no figures of a fabric of ibsim: %s\n", check.error().text.c_str());
        return 0;
    }
    throw_when_interrupted();
    try {
        bench(count > 1 ? arguments[1] : "200000").run();
        return 0;
    } catch (const interrupted&) {
        return 130;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "fabric-bench: %s\n", error.what());
        return 1;
    }
}
