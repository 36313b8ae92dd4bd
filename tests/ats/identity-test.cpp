// The name and the address of a host change at run time. Other modules call functions of ats to change them. Users
// write commands. Tests the records that each HCA then registers, and what remains after a failure.
#include "tests/ats/ats-world.h"

namespace
{

using lines = std::vector<std::string>;

struct identity : testing::Test {
    ats_world w;
    ats_host& host = w.add({.ports = {2}}).load();

    int32_t set_name(const char* name)
    {
        int32_t result = 0;
        host.run([&] { result = host.symbol<int32_t (*)(const char*)>("ats_sa_set_hostname")(name); });
        return result;
    }
    int32_t set_address(const std::string& address)
    {
        int32_t result = 0;
        const uint32_t ip = ip_of(address);
        const void* function = host.machine().inter_modules.get("ATS_SA_SET_IP_ADDR");
        host.run([&] { result = reinterpret_cast<int32_t (*)(uint32_t)>(const_cast<void*>(function))(ip); });
        host.machine().inter_modules.put("ATS_SA_SET_IP_ADDR");
        return result;
    }
};

TEST_F(identity, waits_for_a_port_to_become_active)
{
    host.trace(trace_debug);
    EXPECT_EQ(set_name("early"), 0);
    EXPECT_EQ(set_address("10.0.0.7"), 0);
    EXPECT_THAT(host.log(),
                testing::IsSupersetOf(
                    {"ERROR sa/ats_sa_update_hostname: No active port update hostname will be when link Active",
                     "DEBUG sa/ats_sa_do_update_ip: No active port update ip address will be when link Active"}));
    host.link_up(1);
    EXPECT_THAT(w.records(), ElementsAre("node1.1 10.0.0.7 early"));
    EXPECT_EQ(set_name(""), 0);
    host.link_up(2);
    host.link_down(1);
    EXPECT_THAT(w.records(), ElementsAre("node1.2 10.0.0.7 "));
    EXPECT_EQ(set_name("a-name-of-forty-characters-or-thereabouts"), 0);
    EXPECT_THAT(w.records(), ElementsAre("node1.2 10.0.0.7 a-name-of-forty-characters-or-"));
    host.log();
    EXPECT_EQ(set_name(nullptr), -1);
    EXPECT_THAT(host.log(), Contains("ERROR sa/ats_sa_update_hostname: ATS hostname is empty !"));
    EXPECT_THAT(w.records(), ElementsAre("node1.2 10.0.0.7 a-name-of-forty-characters-or-"));
    EXPECT_EQ(set_name("short"), 0);
    EXPECT_THAT(w.records(), ElementsAre("node1.2 10.0.0.7 short")) << "no letter of the longer name remains";
}

TEST(identity_of_three_hcas, takes_a_name_on_each_and_restores_it)
{
    ats_world w;
    ats_host& host = w.add({.ports = {1, 1, 1}}).load();
    for (int hca : {0, 1, 2}) host.link_up(1, hca);
    host.run([&] { EXPECT_EQ(host.symbol<int32_t (*)(const char*)>("ats_sa_set_hostname")("other"), 0); });
    const auto all = testing::UnorderedElementsAre("node1.1 10.0.0.1 other", "node1.mthca1.1 10.0.0.1 other",
                                                   "node1.mthca2.1 10.0.0.1 other");
    EXPECT_THAT(w.records(), all);
    w.subnet.forget_all();
    w.at(60'600);
    EXPECT_THAT(w.records(), all);
}

// The first HCA that fails ends the update. HCAs before it have the new value. Here an HCA fails to get `ats_sem`: it
// has stored a new address, but not a new name.
TEST(identity_of_three_hcas, stops_at_the_first_failure)
{
    const struct {
        const char* command;
        const char* first_record;
        const char* second_record; // of the HCA that fails, after its next registration
    } table[] = {
        {"set_host_name new", "node1.1 10.0.0.1 new", "node1.mthca1.1 10.0.0.1 node1"},
        {"set_ip_addrs 10.0.0.7", "node1.1 10.0.0.7 node1", "node1.mthca1.1 10.0.0.7 node1"},
    };
    for (const auto& [command, first_record, second_record] : table) {
        SCOPED_TRACE(command);
        ats_world w;
        ats_host& host = w.add_registered({.ports = {1, 1, 1}});
        for (int hca : {1, 2}) host.link_up(1, hca);
        w.requests();
        constexpr uint64_t copy = 1;                // copies the command's text
        constexpr uint64_t calls_of_one_update = 5; // one for the semaphore; two each for the Delete and the Set
        host.faults().fail_nth(copy + calls_of_one_update + 1);
        host.control(command);
        EXPECT_EQ(host.faults().failed_call(), "down_interruptible");
        host.faults().disarm();
        EXPECT_THAT(host.log(), ElementsAre(HasSubstr("down_interruptible is not OK"), HasSubstr(" FAIL")));
        const std::string set = w.requests().back();
        EXPECT_THAT(set, StartsWith("0 node1.1 SET "))
            << "the second HCA sent nothing, and the third one was not tried";

        for (int hca : {1, 2}) {
            host.link_down(1, hca);
            host.link_up(1, hca);
        }
        EXPECT_THAT(w.records(), ElementsAre(first_record, second_record, "node1.mthca2.1 10.0.0.1 node1"));
    }
}

TEST_F(identity, keeps_the_new_value_when_it_cannot_be_registered)
{
    host.link_up(1);
    host.faults().fail_calls("gsi_post_send_dtgrm");
    for (const auto& [command, operation] :
         std::map<std::string, std::string>{{"set_host_name kept", "update_hostname: ats_sa_set_new_sr Failded"},
                                            {"set_ip_addrs 10.0.0.7", "do_update_ip:  ats_sa_set_new_sr Faild"}}) {
        host.control(command);
        const lines log = host.log();
        ASSERT_GT(log.size(), 2u);
        EXPECT_EQ(log.end()[-2], "ERROR sa/ats_sa_" + operation);
        EXPECT_THAT(log.back(), StartsWith("ERROR api/ats_proc_cmd_update_"));
    }
    for (const char* call : {"gsi_post_send_dtgrm", "down_interruptible"}) { // every failure returns -1
        host.faults().fail_calls(call);
        EXPECT_EQ(set_name("kept"), -1) << call;
        EXPECT_EQ(set_address("10.0.0.7"), -1) << call;
    }
    host.faults().disarm();
    host.link_down(1);
    host.link_up(1);
    EXPECT_THAT(w.records(), ElementsAre("node1.1 10.0.0.7 kept"));
}

// The writing task has a pending signal. The task still gets the semaphore, which is free. Then the signal ends each
// wait for the answer to a Delete at once.
TEST_F(identity, a_pending_signal_ends_every_wait)
{
    host.link_up(1);
    w.requests();
    host.log();
    w.subnet.faults.sa_silent = true;
    exec::task& writer = host.start("writer", [&] {
        exec::send_signal(*exec::current_task());
        host.control("set_ip_addrs 10.0.0.7");
    });
    w.at(0);
    host.finish(writer);
    EXPECT_THAT(w.requests(), ElementsAre("0 node1.1 DELETE node1.1", "0 node1.1 DELETE node1.1",
                                          "0 node1.1 DELETE node1.1", "0 node1.1 SET node1.1 10.0.0.7 node1"));
    const std::string interrupted_line = "ERROR sa/ats_sa_set_new_sr: Interrupted by a signal";
    EXPECT_THAT(host.log(), ElementsAre(interrupted_line, interrupted_line, interrupted_line));
}

} // namespace
