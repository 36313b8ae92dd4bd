// Measures hosts that use libibumad, on one ibsim fabric with one OpenSM. Compares the lookups of a whole host with a
// bare libibumad loop, with client processes and with saquery. Also measures the time until records are registered.
//   fabric-bench [LOOKUPS]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include "tools/fabric/ats-hosts.h"

namespace
{

using namespace fabric_tools;
using clock = std::chrono::steady_clock;

constexpr int window = 16;
constexpr int rounds = 9; // each figure is the median of this many rounds
constexpr int hosts = most_programs - 3;
constexpr int first_target = 101; // the looked-up addresses start at 10.0.0.101
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

[[noreturn]] void fail(const std::string& reason)
{
    throw std::runtime_error(reason);
}

std::vector<std::string> node_list()
{
    std::vector<std::string> nodes = node_names(hosts, {sm_node, asker});
    for (int i = 0; i < window; ++i) nodes.push_back("target" + std::to_string(i));
    return nodes;
}

class bench
{
  public:
    explicit bench(std::string lookups) : lookups_(std::move(lookups)), net_(node_list()) {}

    void run()
    {
        start_sm();
        set_targets();
        measure_lookups();
        measure_reregistration();
        measure_registrations();
    }

  private:
    void start_sm()
    {
        sm_ = net_.start_sm(sm_node);
        if (!ibsim_fabric::wait_master(*sm_)) fail("OpenSM does not start: " + sm_->output());
    }

    // Another client of the SA registers the records for the lookups, under the GIDs of nodes without a program.
    void set_targets()
    {
        for (int i = 0; i < window; ++i) {
            const std::string node = "target" + std::to_string(i);
            const std::string guid = net_.run(node, {"ibstat", "-p"}); // "0x", 16 digits and a line end
            if (guid.size() != 19) fail("ibstat shows no port GUID of " + node + ": " + guid);
            const std::string gid = "0xFE80000000000000" + guid.substr(2, 16);
            if (net_.run(asker, {SET_RECORD, gid, "0xFFFF", target_address(i), node}) != "0x0000\n")
                fail("no record of " + node + " with " + gid);
        }
    }

    // Runs the command on the asker's node. Returns the number before "lookups/s" in its output.
    double rate(const std::vector<std::string>& command)
    {
        const std::string output = net_.run(asker, command);
        if (output.find("lookups/s") == std::string::npos) fail(command.front() + ": " + output);
        return std::atof(output.c_str() + output.rfind('\n', output.find("lookups/s")) + 1);
    }

    // One client process for each target asks a service on the asker's node. Returns the total rate.
    double rate_of_clients()
    {
        const std::string socket = "/tmp/ats-fabric-bench-" + std::to_string(getpid()) + ".sock";
        const std::unique_ptr<process> service = net_.start(
            asker, "service", {ATS_PROGRAM, "run", "--fabric", "umad", "--address", address_of(1), "--socket", socket});
        if (!service->wait_line("clients are served", 30s)) fail(service->output());
        std::vector<std::string> clients = {CLIENT_LOOKUPS, socket, lookups_};
        for (int i = 0; i < window; ++i) clients.push_back(target_address(i));
        const double clients_rate = rate(clients);
        service->stop();
        return clients_rate;
    }

    void measure_lookups()
    {
        std::vector<std::string> ats = {ATS_LOOKUPS, address_of(1), lookups_};
        for (int i = 0; i < window; ++i) ats.push_back(target_address(i));
        std::vector<std::string> ats_paths = ats;
        ats_paths.insert(ats_paths.begin() + 3, "path");
        std::vector<std::string> bare_service = {BARE_SERVICE, lookups_};
        for (int i = 0; i < window; ++i) bare_service.push_back(target_address(i));
        std::vector<double> ats_rates, bare_rates, shares, client_rates, client_shares, bare_service_shares;
        std::vector<double> path_rates, bare_path_rates, path_shares;
        for (int i = 0; i < rounds; ++i) { // alternately, so other load on the machine affects all equally
            bare_rates.push_back(rate({BARE_LOOKUPS, target_address(0), lookups_, std::to_string(window)}));
            ats_rates.push_back(rate(ats));
            shares.push_back(ats_rates.back() / bare_rates.back());
            bare_path_rates.push_back(
                rate({BARE_LOOKUPS, target_address(0), lookups_, std::to_string(window), "path"}));
            path_rates.push_back(rate(ats_paths));
            path_shares.push_back(path_rates.back() / bare_path_rates.back());
            client_rates.push_back(rate_of_clients());
            client_shares.push_back(client_rates.back() / ats_rates.back());
            bare_service_shares.push_back(client_rates.back() / rate(bare_service));
        }
        constexpr int queries = 20;
        const auto begin = clock::now();
        for (int i = 0; i < queries; ++i) net_.run(asker, {"saquery", "SR"});
        const double saquery_rate = queries / milliseconds_since(begin) * 1000;

        std::printf("lookups, %d in flight      %9.0f /s   ats\n", window, median(ats_rates));
        std::printf(
            "                          %9.0f /s   a bare libibumad loop: ats reaches %.2f of it (%.2f to %.2f)\n",
            median(bare_rates), median(shares), std::ranges::min(shares), std::ranges::max(shares));
        std::printf("                          %9.0f /s   %d processes through libatsclient: %.2f of ats by itself "
                    "(%.2f to %.2f), %.2f of a bare service for as many processes (%.2f to %.2f)\n",
                    median(client_rates), window, median(client_shares), std::ranges::min(client_shares),
                    std::ranges::max(client_shares), median(bare_service_shares), std::ranges::min(bare_service_shares),
                    std::ranges::max(bare_service_shares));
        std::printf("                          %9.0f /s   saquery, once per lookup: ats is %.0f times as fast\n",
                    saquery_rate, median(ats_rates) / saquery_rate);
        std::printf(
            "address to path, uncached %9.0f /s   ats; a bare loop with the same two queries reaches %.0f: %.2f of "
            "it (%.2f to %.2f, goal: 0.9)\n",
            median(path_rates), median(bare_path_rates), median(path_shares), std::ranges::min(path_shares),
            std::ranges::max(path_shares));
        std::fflush(stdout);
    }

    // Runs the program on the asker's node. Returns the milliseconds of a registration and, if it prints them, of a
    // round trip.
    std::pair<double, double> median_times(const char* program)
    {
        constexpr const char* count = "101";
        const std::string output = net_.run(asker, {program, address_of(1), count});
        std::pair<double, double> times;
        if (std::sscanf(output.c_str(), "%lf ms to register, %lf", &times.first, &times.second) < 1) fail(output);
        return times;
    }

    // A replacement for libibverbs reports the event to the host, because ibsim has no such events.
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
        std::printf("record after link-up      %9.0f ms   (goal: 200; a port is asked every 100 ms)\n",
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
        if (!wait_until([&] { return own_record_count() == 1; }, 60s)) fail("no record after link-up");
        return milliseconds_since(begin);
    }

    const std::string lookups_;
    ibsim_fabric net_;
    std::unique_ptr<process> sm_;
};

} // namespace

int main(int count, char** arguments)
{
    if (const auto check = ibsim_fabric::check_programs(); !check) {
        std::printf("no figures of a real fabric: %s\n", check.error().text.c_str());
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
