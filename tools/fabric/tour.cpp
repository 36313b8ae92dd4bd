// `make fabric`: runs real hosts on a simulated fabric under OpenSM, and causes the usual events of a fabric. Prints
// one line for each event, with its effect and the time until the effect. The exit code is 1 if an effect is missing or
// wrong or an error ends the tour, 2 if the command line is wrong or a program is missing, and 130 after Ctrl-C or
// another signal that ends the tour.
//   ats-fabric [HOSTS]

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "console/progress.h"
#include "tools/fabric/ats-hosts.h"

namespace
{

using namespace fabric_tools;
using clock = std::chrono::steady_clock;

constexpr int least_hosts = 2;
constexpr int most_hosts = most_programs - 3; // the SM and a tool also need a place in ibsim, and one place stays free
const std::string tool_node = "desk";

class tour
{
  public:
    explicit tour(int hosts) : count_(hosts), net_(node_names(hosts, {"sm", tool_node}))
    {
        std::printf("%-44s %-42s %10s\n", "EVENT", "EFFECT", "TIME");
    }

    void run()
    {
        start_sm("OpenSM starts");
        start_hosts();
        resolve_all();
        lose_and_find_a_link();
        restart_sm();
        kill_a_host();
        stop_hosts();
    }

    bool is_good() const { return is_good_; }

  private:
    // Calls `action`, which causes an event. Waits at most 60 seconds until `condition` returns true: the event has had
    // its effect.
    template <class action_t>
    void step(const std::string& event, const std::string& effect, const action_t& action,
              const std::function<bool()>& condition)
    {
        const auto begin = clock::now();
        const std::string title = event.empty() ? effect : event;
        console::progress progress;
        progress.show(title);
        action();
        const auto condition_now = [&] {
            const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(clock::now() - begin).count();
            progress.show(title + ", " + std::to_string(seconds) + " s");
            return condition();
        };
        const bool is_seen = wait_until(condition_now, 60s);
        progress.clear();
        const std::chrono::duration<double, std::milli> step_time = clock::now() - begin;
        is_good_ = is_good_ && is_seen;
        const std::string text = is_seen ? effect : "MISSING: " + effect;
        std::printf("%-44s %-42s %7.0f ms\n", event.c_str(), text.c_str(), step_time.count());
        std::fflush(stdout);
    }

    void start_sm(const std::string& event)
    {
        step(
            event, "the subnet is up", [&] { sm_ = net_.start_sm("sm"); },
            [&] { return sm_->output().find("SUBNET UP") != std::string::npos; });
    }

    int records() { return count_records(net_, tool_node); }

    void start_hosts()
    {
        const std::string all = std::to_string(count_);
        step(
            all + " hosts start", "the SA holds " + all + " records",
            [&] {
                for (int i = 1; i <= count_; ++i) hosts_.push_back(std::make_unique<fabric_host>(net_, i));
                for (const auto& host : hosts_) host->wait_serving();
            },
            [&] { return records() == count_; });
        for (const auto& host : hosts_) {
            gids_.push_back(host->port().value("gid", ""));
        }
    }

    // Every host looks up every other host in both directions. For half of the pairs, the lookup by address comes
    // first; for the others, the lookup by GID. The SA answers the first lookup. The cache may answer the second one.
    void resolve_all()
    {
        int right = 0, from_sa = 0;
        const auto count = [&](const json& answers, const std::string& expected) {
            const json answer = answers.is_array() && !answers.empty() ? answers[0] : json::object();
            if (answer.value("found", "") != expected) return;
            ++right;
            if (answer.value("source", "") == "SA") ++from_sa;
        };
        const auto resolve = [&](int i, int j) { count(hosts_[i]->ask({"resolve", address_of(j + 1)}), gids_[j]); };
        const auto reverse = [&](int i, int j) { count(hosts_[i]->ask({"reverse", gids_[j]}), address_of(j + 1)); };
        const int questions = 2 * count_ * (count_ - 1);
        console::progress progress;
        std::string effect;
        const auto all_pairs = [&] {
            for (int i = 0; i < count_; ++i) {
                progress.show("node" + std::to_string(i + 1) + " of " + std::to_string(count_) +
                              " asks for the others");
                for (int j = 0; j < count_; ++j) {
                    if (i == j) continue;
                    if (i < j) resolve(i, j);
                    reverse(i, j);
                    if (i > j) resolve(i, j);
                }
            }
            effect = std::to_string(right) + " right, " + std::to_string(from_sa) + " from the SA";
        };
        const auto begin = clock::now();
        all_pairs();
        progress.clear();
        const std::chrono::duration<double, std::milli> step_time = clock::now() - begin;
        is_good_ = is_good_ && right == questions && from_sa >= questions / 2;
        std::printf("%-44s %-42s %7.0f ms\n",
                    ("all find each other: " + std::to_string(questions) + " questions").c_str(), effect.c_str(),
                    step_time.count());
    }

    void lose_and_find_a_link()
    {
        fabric_host& host = *hosts_.front();
        const auto state_is = [&](const std::string& state) {
            return [&host, state] { return host.port().value("state", "") == state; };
        };
        const int old_received = host.port().value("received", 0);
        step(
            "node1's link is unplugged", "node1 has no active port", [&] { net_.unplug("node1"); }, state_is("Down"));
        step(
            "... and plugged again", "node1's port is active", [&] { net_.plug("node1"); }, state_is("Active"));
        // For a new registration, the host receives two answers: to a Delete and to a Set.
        step(
            "", "node1 has registered again", [] {},
            [&] { return host.port().value("received", 0) >= old_received + 2; });
    }

    void restart_sm()
    {
        step(
            "OpenSM ends", "it is gone", [&] { sm_->stop(); }, [&] { return sm_->has_ended(); });
        start_sm("OpenSM starts again");
        step(
            "", "its SA has no records", [] {}, [&] { return records() == 0; });
        step(
            "hosts check their records (after a minute)", "the SA has all records again", [] {},
            [&] { return records() == count_; });
    }

    void kill_a_host()
    {
        fabric_host& host = *hosts_.back();
        const std::string name = host.name();
        step(
            name + " is killed without warning", "its record stays (infinite lease)", [&] { host.kill(); },
            [&] { return records() == count_; });
        step(
            name + " starts again", "the SA has one record of it",
            [&] {
                hosts_.back() = std::make_unique<fabric_host>(net_, count_);
                hosts_.back()->wait_serving();
            },
            [&] {
                return hosts_.back()->port().value("state", "") == "Active" &&
                       records_at_sa(net_, tool_node, {"--name", name}).size() == 1;
            });
    }

    void stop_hosts()
    {
        bool all_in_order = true;
        step(
            "all hosts stop", "the SA holds no record",
            [&] {
                for (const auto& host : hosts_) all_in_order = host->stop() == 0 && all_in_order;
            },
            [&] { return records() == 0; });
        is_good_ = is_good_ && all_in_order;
    }

    const int count_;
    ibsim_fabric net_;
    std::unique_ptr<process> sm_;
    std::vector<std::unique_ptr<fabric_host>> hosts_;
    std::vector<std::string> gids_;
    bool is_good_ = true;
};

int show(int hosts)
{
    if (const auto programs = ibsim_fabric::check_programs(); !programs) {
        std::cerr << "ats-fabric: " << programs.error().text << '\n';
        return 2;
    }
    throw_when_interrupted();
    try {
        tour tour(hosts);
        tour.run();
        std::puts(tour.is_good() ? "All effects were right." : "An effect was missing or wrong.");
        return tour.is_good() ? 0 : 1;
    } catch (const interrupted&) {
        std::cerr << "ats-fabric: interrupted; all programs are ended and all files removed\n";
        return 130;
    } catch (const std::exception& error) {
        std::cerr << "ats-fabric: " << error.what() << '\n';
        return 1;
    }
}

} // namespace

int main(int count, char** arguments)
{
    const long hosts = count > 1 ? std::strtol(arguments[1], nullptr, 10) : least_hosts;
    if (count > 2 || hosts < least_hosts || hosts > most_hosts) {
        std::cerr << "usage: ats-fabric [HOSTS]\nHOSTS is " << least_hosts << " to " << most_hosts
                  << ": ibsim takes no more than " << most_programs << " programs\n";
        return 2;
    }
    return show(static_cast<int>(hosts));
}
