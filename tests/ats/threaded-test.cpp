// Hosts with all modules on real threads. They resolve each other while links flap, names change, addresses are set
// again, the SA changes its LID and loses records, and one host leaves. The fabric is embedded, but tasks and time are
// real, so the thread sanitizer can find races.
#include <chrono>

#include "console/host-plans.h"
#include "host/stack/logger.h"
#include "host/stack/registry.h"
#include "host/world/path-resolution.h"
#include "tests/ats/ats-world.h"

namespace
{

constexpr auto patience = std::chrono::seconds(60);

template <class condition_t>
bool eventually(exec::executor& exec, const condition_t& holds)
{
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!holds()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        exec.relax();
    }
    return true;
}

class running_hosts
{
  public:
    running_hosts()
    {
        for (const auto& [name, address] : addresses) {
            world::host_plan plan = console::usual_host(name, address);
            if (name == "node1") plan.hcas = {{"mthca0", 2}, {"mthca1", 1}};
            hosts.push_back(std::make_unique<world::host>(*exec, world::add_hcas(subnet, plan).value(), plan,
                                                          world::default_module_folder(), hosts.size() + 1));
            EXPECT_TRUE(hosts.back()->load());
        }
        for (const embedded::port_view& port : subnet.ports())
            EXPECT_TRUE(subnet.link_up(port.host_name, port.hca_name, port.port));
        EXPECT_TRUE(eventually(*exec, [&] { return subnet.service_records().size() == addresses.size() + 1; }));
    }

    kernel::machine& machine(size_t index) { return hosts[index]->machine(); }

    void start(size_t host, const char* name, std::function<void()> body)
    {
        tasks.push_back(&machine(host).start(name, std::move(body)));
    }
    void write(size_t host, const std::string& command)
    {
        machine(host).enter("write", [&] { machine(host).proc.write("dorvex/ats/control", command); });
    }

    // Looks up the GID of an address, the address of this GID and the path to the address, `times` times, at the SA or
    // in the caches. Waits for every fifth path at most one tick.
    void resolve_others(size_t host, int times)
    {
        for (int i = 0; i < times; ++i) {
            const std::string& address = addresses[static_cast<size_t>(i) % addresses.size()].second;
            const world::lookup_mode source = i % 3 ? world::lookup_mode::usual : world::lookup_mode::sa_only;
            const world::resolution answer = world::resolve_address(machine(host), ip_of(address), source);
            if (answer.status == ibat_stat_ok) world::resolve_gid(machine(host), answer.gid);
            answer_count += answer.status == ibat_stat_ok;
            const uint64_t timeout_ticks = i % 5 ? world::no_path_timeout : 1;
            const auto path = world::resolve_path(machine(host), ip_of(address), source, timeout_ticks);
            path_count += path.status == world::path_status::found;
        }
    }

    void flap(const char* hca)
    {
        EXPECT_TRUE(subnet.link_down("node1", hca, 1));
        schedule_timeout_uninterruptible(1);
        EXPECT_TRUE(subnet.link_up("node1", hca, 1));
        schedule_timeout_uninterruptible(1);
    }

    void leave(size_t host)
    {
        for (const char* module : {"ats", "ucm", "ibat"})
            EXPECT_TRUE(eventually(*exec, [&] { return bool(machine(host).modules.rmmod(module)); }));
        EXPECT_EQ(machine(host).memory.blocks(), 0u) << testing::PrintToString(machine(host).memory.leaks());
    }

    void finish()
    {
        for (exec::task* each : tasks) exec->join(*each);
        tasks.clear();
    }

    const std::vector<std::pair<std::string, std::string>> addresses = {
        {"node1", "10.0.0.1"}, {"node2", "10.0.0.2"}, {"node3", "10.0.0.3"}};
    std::unique_ptr<exec::executor> exec = exec::make_threaded_executor();
    embedded::subnet subnet{*exec};
    std::vector<std::unique_ptr<world::host>> hosts;
    std::vector<exec::task*> tasks;
    std::atomic<int> answer_count = 0, path_count = 0;
};

TEST(threaded, hosts_have_no_race_when_they_resolve_flap_change_and_leave)
{
    running_hosts w;
    for (size_t host = 0; host < w.hosts.size(); ++host) {
        w.start(host, "resolve", [&w, host] { w.resolve_others(host, host == 2 ? 100 : 400); });
        w.start(host, "operate", [&w, host] {
            for (int i = 0; i < 60; ++i) {
                w.write(host,
                        i % 2 ? "set_host_name name" + std::to_string(i) : "set_ip_addrs " + w.addresses[host].second);
                w.write(host, "rarp 0xfe800000000000000200000000010001");
                w.write(host, "sa_verify_period " + std::to_string(i % 2) + " 50");
                std::string text;
                w.machine(host).proc.read("dorvex/ats/control", 0, 100, &text);
                w.machine(host).get<stack::registry>().set("dorvex/modules/ats", "debug-level", i % 6);
            }
        });
    }
    w.start(0, "flap", [&w] {
        for (int i = 0; i < 150; ++i) {
            w.flap("mthca0");
            w.flap("mthca1");
            if (i % 8 == 0) {
                EXPECT_TRUE(w.subnet.set_sm(static_cast<uint16_t>(100 + i), 0));
            }
            if (i % 10 == 0) w.subnet.forget_all();
        }
    });
    w.leave(2); // while requests are still running
    w.finish();
    EXPECT_GT(w.answer_count, 0);
    EXPECT_GT(w.path_count, 0);

    // The two remaining hosts can still register.
    for (size_t host : {0, 1}) w.write(host, "set_host_name end");
    EXPECT_TRUE(eventually(*w.exec, [&] {
        const std::vector<embedded::service_record_view> records = w.subnet.service_records();
        return std::ranges::count(records, "end", &embedded::service_record_view::host_name) >= 3;
    }));
    EXPECT_EQ(world::resolve_address(w.machine(0), ip_of("10.0.0.2"), world::lookup_mode::sa_only).status,
              ibat_stat_ok);
    w.leave(1);

    // The second HCA of node1 gets events while the first one is being stopped. If the link of the second HCA is down
    // when this HCA is stopped, its record remains at the SA.
    std::atomic<bool> has_left = false;
    w.start(0, "flap until the end", [&] {
        while (!has_left) w.flap("mthca1");
    });
    w.leave(0);
    has_left = true;
    w.finish();
    EXPECT_LE(w.subnet.service_records().size(), 1u);
}

} // namespace
