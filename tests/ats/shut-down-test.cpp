// The module is unloaded in many states. It must then give back all resources, and delete its record if the SA answers.
// Its stop must end.
#include "kernel/errno.h"
#include "tests/ats/failing-calls.h"

namespace
{

using lines = std::vector<std::string>;

// The log lines that show ats_sa_stop as the name of their function.
lines lines_of_stop(ats_host& host)
{
    lines texts;
    for (const std::string& line : host.log())
        if (const size_t position = line.find("sa/ats_sa_stop: "); position != std::string::npos)
            texts.push_back(line.substr(position + 16));
    return texts;
}

const std::string timeout_line = "timeout on send DEL SR MAD", answer_line = "Received response on send DEL SR MAD";
const std::string signal_line = "Interrupted by a signal", deregistered_line = "Deregistered GSI class";

struct shut_down : testing::Test {
    ats_world w;
    ats_host& host = w.add_registered({.ports = {2}, .trace = trace_debug});
};

TEST_F(shut_down, waits_for_the_answer_to_each_delete)
{
    host.link_up(2);
    w.requests();
    w.subnet.faults.drop_next_answers = 1;
    host.unload();
    EXPECT_THAT(w.requests(), ElementsAre("0 node1.1 DELETE node1.1", "20 node1.1 DELETE node1.2"));
    EXPECT_EQ(w.sim->now(), 20u);
    EXPECT_THAT(lines_of_stop(host), ElementsAre(timeout_line, answer_line, deregistered_line, deregistered_line,
                                                 " Packets sent     through the GSI port 1: 4.",
                                                 " Packets received through the GSI port 1: 3.",
                                                 " Packets sent     through the GSI port 2: 0.",
                                                 " Packets received through the GSI port 2: 0."));
    EXPECT_THAT(w.records(), IsEmpty());
    EXPECT_EQ(host.leftovers(), "");
}

TEST_F(shut_down, is_not_held_up_by_a_silent_sa_or_a_signal)
{
    w.subnet.faults.sa_silent = true;
    reverse_lookup lookup;
    EXPECT_EQ(host.reverse({1, 1}, lookup), ibat_stat_pending);
    w.requests();
    exec::task& rmmod = host.start("rmmod", [&] { host.unload(); });
    w.at(10);
    EXPECT_EQ(host.control("set_ip_addrs 10.0.0.9"), -EK_NOENT) << "the module that owns the file is unloading";
    EXPECT_THAT(host.machine().inter_modules.names(), testing::Not(Contains("ATS_SA_SET_IP_ADDR")));
    exec::send_signal(rmmod);
    host.finish(rmmod);
    EXPECT_THAT(w.requests(), ElementsAre("0 node1.1 DELETE node1.1", "10 node1.1 DELETE none"));
    lines texts = lines_of_stop(host);
    texts.resize(4);
    EXPECT_THAT(texts, ElementsAre(timeout_line, signal_line, timeout_line, signal_line));
    EXPECT_EQ(host.leftovers(), "");
    w.at(5000);
    EXPECT_THAT(lookup.answers, IsEmpty()) << "the asker has detached by then";
}

TEST_F(shut_down, waits_until_gsi_releases_the_class)
{
    host.faults().fail_calls("gsi_deregister_class", 2);
    host.unload();
    EXPECT_EQ(w.sim->now(), 200u);
    lines texts = lines_of_stop(host);
    const std::string retry_line = "Can't deregister GSI class - returned -16. Try again";
    texts.resize(6);
    EXPECT_THAT(texts,
                ElementsAre(answer_line, answer_line, retry_line, retry_line, deregistered_line, deregistered_line));
    EXPECT_EQ(host.leftovers(), "");
}

// When the stop begins, the next check of the first HCA's record is due in 30 ticks. The stop takes longer, because the
// SA is silent. The stop must end all checks first. Otherwise this check runs when the first HCA has already stopped.
TEST(shut_down_of_two_hcas, ends_verification_first)
{
    ats_world w;
    ats_host& host = w.add({.ports = {1, 1}, .trace = trace_debug}).load();
    uint64_t first_check = 0;
    const std::string prefix = "calc_verify_timeout: timeout=";
    for (const std::string& line : host.log()) {
        const size_t position = line.find(prefix);
        if (position != std::string::npos && first_check == 0)
            first_check = std::stoull(line.substr(position + prefix.size()));
    }
    ASSERT_GT(first_check, 30u);
    for (int hca : {0, 1}) host.link_up(1, hca);
    w.at(first_check - 30);
    w.subnet.faults.sa_silent = true;
    host.unload();
    EXPECT_EQ(host.leftovers(), "");
}

// IBAT is still processing an answer when the stop begins. The stop must wait until IBAT returns, and only then give
// back IBAT's function. Without UCM, no earlier step of the stop waits for answers in progress.
TEST(shut_down_without_ucm, waits_for_an_answer_that_ibat_is_processing)
{
    ats_world w;
    ats_host& host = w.add_registered({.has_ucm = false});
    exec::task* rmmod = nullptr;
    host.peers().processing_hook = [&] {
        rmmod = &host.start("rmmod", [&] { host.unload(); });
        for (int i = 0; i < 3; ++i) host.machine().exec().relax();
        EXPECT_EQ(host.machine().inter_modules.references("ibat_process_arp_data_fn"), 1);
    };
    host.resolve("10.0.0.1");
    ASSERT_TRUE(rmmod);
    host.finish(*rmmod);
    EXPECT_EQ(host.leftovers(), "");
}

TEST(shut_down_of_two_hcas, drops_the_checks_that_are_pending)
{
    ats_world w;
    ats_host& host = w.add_registered({.ports = {1, 1}});
    host.link_up(1, 1);
    w.requests();
    w.subnet.faults.sa_silent = true;
    w.at(60'700);
    EXPECT_EQ(w.requests().size(), 2u);
    host.unload();
    EXPECT_EQ(host.leftovers(), "");
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

// ---- scenarios with failing kernel calls ----

TEST(failing_calls, of_an_unload_leave_nothing_behind)
{
    for_every_failing_call([](failing_calls calls) {
        ats_world w;
        ats_host& host = w.add_registered({.ports = {2, 1}});
        host.link_up(2);
        const failed_calls failures = with_failing_calls(host, calls, [&] { host.unload(); });
        EXPECT_EQ(host.leftovers(), "");
        return failures;
    });
}

TEST(failing_calls, of_an_update_do_not_stop_the_next_update)
{
    for (const char* command : {"set_ip_addrs 10.0.0.5", "set_host_name other"}) {
        for_every_failing_call([command](failing_calls calls) {
            ats_world w;
            ats_host& host = w.add_registered({.ports = {2, 1}});
            host.link_up(1, 1);
            const failed_calls failures = with_failing_calls(host, calls, [&] { host.control(command); });
            w.at(100);
            host.control("set_host_name last");
            EXPECT_THAT(w.records(), ElementsAre(HasSubstr(" last"), HasSubstr(" last")));
            host.unload();
            EXPECT_THAT(w.records(), IsEmpty());
            EXPECT_EQ(host.leftovers(), "");
            return failures;
        });
    }
}

TEST(failing_calls, of_a_resolution_are_reported_to_the_asker)
{
    for_every_failing_call([](failing_calls calls) {
        ats_world w;
        ats_host& host = w.add_registered();
        reverse_lookup lookup;
        ibat_stat_t by_address{}, by_gid{};
        const failed_calls failures = with_failing_calls(host, calls, [&] {
            by_address = host.resolve("10.0.0.1");
            by_gid = host.reverse(host.gid(1), lookup);
        });
        w.at(2000);
        const bool first_failed = by_address == ibat_stat_error, second_failed = by_gid == ibat_stat_error;
        EXPECT_EQ(first_failed + second_failed, static_cast<int>(failures.count));
        EXPECT_EQ(lookup.answers.size(), failures.last == "kmalloc" ? 0u : 1u);
        if (failures.last == "kmalloc") {
            EXPECT_EQ(host.log().back(), "ATS - can't allocate 72 bytes for ats_rarp_req_t");
        } else {
            EXPECT_EQ(lookup.answers[0].status, second_failed ? ibat_stat_timeout : ibat_stat_ok);
        }
        EXPECT_EQ(host.peers().replies.size(), 2u - failures.count);
        host.unload();
        EXPECT_EQ(host.leftovers(), "");
        return failures;
    });
}

} // namespace
