// Unloading: the record is deleted, everything is given back, and it ends, whatever state it meets.
#include "kernel/errno.h"
#include "tests/ats/failing-calls.h"

namespace
{

using lines = std::vector<std::string>;

// What the stop says, without the Deletes' own lines.
lines told_by_stop(ats_host& host)
{
    lines kept;
    for (const std::string& line : host.log())
        if (const size_t at = line.find("sa/ats_sa_stop: "); at != std::string::npos)
            kept.push_back(line.substr(at + 16));
    return kept;
}

const std::string timeout = "timeout on send DEL SR MAD", received = "Received response on send DEL SR MAD";
const std::string interrupted = "Interrupted by a signal", deregistered = "Deregistered GSI class";

struct shut_down : testing::Test {
    ats_world w;
    ats_host& host = w.add_registered({.ports = {2}, .trace = trace_debug});
};

TEST_F(shut_down, gives_each_delete_its_time)
{
    host.link_up(2);
    w.requests();
    w.subnet.faults.drop_next_answers = 1;
    host.unload();
    EXPECT_THAT(w.requests(), ElementsAre("0 node1.1 DELETE node1.1", "20 node1.1 DELETE node1.2"));
    EXPECT_EQ(w.sim->now(), 20u);
    EXPECT_THAT(told_by_stop(host), ElementsAre(timeout, received, deregistered, deregistered,
                                                " Packets sent     through the GSI port 1: 4.",
                                                " Packets received through the GSI port 1: 3.",
                                                " Packets sent     through the GSI port 2: 0.",
                                                " Packets received through the GSI port 2: 0."));
    EXPECT_THAT(w.records(), IsEmpty());
    EXPECT_EQ(host.held(), "");
}

TEST_F(shut_down, is_not_held_up_by_a_silent_sa_or_a_signal)
{
    w.subnet.faults.sa_silent = true;
    asker who;
    EXPECT_EQ(host.reverse({1, 1}, who), ibat_stat_pending);
    w.requests();
    exec::task& unloading = host.start("rmmod", [&] { host.unload(); });
    w.at(10);
    EXPECT_EQ(host.control("set_ip_addrs 10.0.0.9"), -EK_NOENT) << "the file has an owner, who leaves";
    EXPECT_THAT(host.machine().inter_modules.names(), testing::Not(Contains("ATS_SA_SET_IP_ADDR")));
    exec::send_signal(unloading);
    host.finish(unloading);
    EXPECT_THAT(w.requests(), ElementsAre("0 node1.1 DELETE node1.1", "10 node1.1 DELETE none"));
    lines told = told_by_stop(host);
    told.resize(4);
    EXPECT_THAT(told, ElementsAre(timeout, interrupted, timeout, interrupted));
    EXPECT_EQ(host.held(), "");
    w.at(5000);
    EXPECT_THAT(who.answers, IsEmpty()) << "who asks has let go by then";
}

TEST_F(shut_down, waits_for_gsi_to_let_go)
{
    host.faults().fail_calls("gsi_deregister_class", 2);
    host.unload();
    EXPECT_EQ(w.sim->now(), 200u);
    lines told = told_by_stop(host);
    const std::string again = "Can't deregister GSI class - returned -16. Try again";
    told.resize(6);
    EXPECT_THAT(told, ElementsAre(received, received, again, again, deregistered, deregistered));
    EXPECT_EQ(host.held(), "");
}

// The first HCA has stopped, and waits for nothing, when its check would come.
TEST(shut_down_of_two_hcas, ends_verification_first)
{
    ats_world w;
    ats_host& host = w.add({.ports = {1, 1}, .trace = trace_debug}).load();
    uint64_t first_check = 0;
    for (const std::string& line : host.log())
        if (const std::string what = "calc_verify_timeout: timeout="; line.find(what) != std::string::npos)
            if (first_check == 0) first_check = std::stoull(line.substr(line.find(what) + what.size()));
    for (int hca : {0, 1}) host.link_up(1, hca);
    w.at(first_check - 30);
    w.subnet.faults.sa_silent = true;
    host.unload();
    EXPECT_EQ(host.held(), "");
}

// Without UCM nothing else of the stop waits for it.
TEST(shut_down_without_ucm, waits_for_an_answer_that_ibat_is_looking_at)
{
    ats_world w;
    ats_host& host = w.add_registered({.has_ucm = false});
    exec::task* unloading = nullptr;
    host.peers().while_processing = [&] {
        unloading = &host.start("rmmod", [&] { host.unload(); });
        for (int i = 0; i < 3; ++i) host.machine().exec().relax();
        EXPECT_EQ(host.machine().inter_modules.references("ibat_process_arp_data_fn"), 1);
    };
    host.resolve("10.0.0.1");
    host.finish(*unloading);
    EXPECT_EQ(host.held(), "");
}

TEST(shut_down_of_two_hcas, drops_the_checks_that_wait)
{
    ats_world w;
    ats_host& host = w.add_registered({.ports = {1, 1}});
    host.link_up(1, 1);
    w.requests();
    w.subnet.faults.sa_silent = true;
    w.at(60'700);
    EXPECT_EQ(w.requests().size(), 2u);
    host.unload();
    EXPECT_EQ(host.held(), "");
}

TEST_F(shut_down, without_an_active_port_has_nothing_to_wait_for)
{
    host.link_down(1);
    host.log();
    host.unload();
    EXPECT_EQ(w.sim->now(), 0u);
    const lines log = host.log();
    for (const char* line : {"ERROR sa/ats_sa_send_service_rec_set_get_del_mad: "
                             "ats_sa_send_service_rec_set_get_del_mad No active port, exit",
                             "ERROR sa/ats_sa_stop: Can't start SA del of service record, ret - -1"})
        EXPECT_EQ(std::ranges::count(log, line), 2);
    EXPECT_EQ(log.back(), "ATS - module stopped ");
}

// ---- the same for each failing call ----

TEST(failing_calls, of_an_unload_leave_nothing_behind)
{
    for_every_failing_call([](failing_calls which) {
        ats_world w;
        ats_host& host = w.add_registered({.ports = {2, 1}});
        host.link_up(2);
        const failed_calls failed = with_failing_calls(host, which, [&] { host.unload(); });
        EXPECT_EQ(host.held(), "");
        return failed;
    });
}

TEST(failing_calls, of_an_update_leave_the_host_able_to_do_the_next)
{
    for (const char* command : {"set_ip_addrs 10.0.0.5", "set_host_name other"}) {
        for_every_failing_call([command](failing_calls which) {
            ats_world w;
            ats_host& host = w.add_registered({.ports = {2, 1}});
            host.link_up(1, 1);
            const failed_calls failed = with_failing_calls(host, which, [&] { host.control(command); });
            w.at(100);
            host.control("set_host_name last");
            EXPECT_THAT(w.records(), ElementsAre(HasSubstr(" last"), HasSubstr(" last")));
            host.unload();
            EXPECT_THAT(w.records(), IsEmpty());
            EXPECT_EQ(host.held(), "");
            return failed;
        });
    }
}

TEST(failing_calls, of_a_resolution_are_told_to_who_asked)
{
    for_every_failing_call([](failing_calls which) {
        ats_world w;
        ats_host& host = w.add_registered();
        asker who;
        ibat_stat_t by_address{}, by_gid{};
        const failed_calls failed = with_failing_calls(host, which, [&] {
            by_address = host.resolve("10.0.0.1");
            by_gid = host.reverse(host.gid(1), who);
        });
        w.at(2000);
        const bool first_failed = by_address == ibat_stat_error, second_failed = by_gid == ibat_stat_error;
        EXPECT_EQ(first_failed + second_failed, static_cast<int>(failed.count));
        EXPECT_EQ(who.answers.size(), failed.last == "kmalloc" ? 0u : 1u);
        if (failed.last == "kmalloc") {
            EXPECT_EQ(host.log().back(), "ATS - can't allocate 72 bytes for ats_rarp_req_t");
        } else {
            EXPECT_EQ(who.answers[0].status, second_failed ? ibat_stat_timeout : ibat_stat_ok);
        }
        EXPECT_EQ(host.peers().processed.size(), 2u - failed.count);
        host.unload();
        EXPECT_EQ(host.held(), "");
        return failed;
    });
}

} // namespace
