// A host gets events of its two ports: link up, link down, another SM. Tests which port becomes the active port, and
// when the module sends which requests to the SA.
#include "tests/ats/ats-world.h"

namespace
{

using lines = std::vector<std::string>;

struct port_events : testing::Test {
    ats_world w;
    ats_host& host = w.add({.ports = {2}}).load();

    // The states of both ports, for example "Down Active".
    std::string states()
    {
        host.log();
        host.read("dorvex/ats/control");
        std::string text;
        for (const std::string& line : host.log())
            if (line.starts_with("Port State ")) text += (text.empty() ? "" : " ") + line.substr(11);
        return text;
    }

    // The trace lines that a function of the module has printed since the last call of log(), without their prefix.
    lines lines_of(const std::string& operation)
    {
        lines texts;
        for (const std::string& line : host.log())
            if (const size_t position = line.find("/" + operation + ": "); position != std::string::npos)
                texts.push_back(line.substr(position + operation.size() + 3));
        return texts;
    }
};

TEST_F(port_events, the_record_follows_the_active_port)
{
    EXPECT_THAT(w.requests(), IsEmpty()) << "no request without a link";
    host.link_up(2);
    EXPECT_THAT(w.requests(), ElementsAre("0 node1.2 DELETE none", "0 node1.2 SET node1.2 10.0.0.1 node1"));
    host.link_up(1);
    host.link_up(2);
    EXPECT_EQ(states(), "UP Active");
    host.link_down(1);
    host.link_down(1);
    EXPECT_EQ(states(), "Down Active");
    host.link_up(1);
    EXPECT_THAT(w.requests(), IsEmpty()) << "a standby port causes no request";

    host.link_down(2);
    EXPECT_EQ(states(), "Active Down");
    EXPECT_THAT(w.requests(), ElementsAre("0 node1.1 DELETE node1.2", "0 node1.1 SET node1.1 10.0.0.1 node1"));
    EXPECT_THAT(w.records(), ElementsAre("node1.1 10.0.0.1 node1"));

    host.link_down(1);
    EXPECT_EQ(states(), "Down Down");
    EXPECT_THAT(w.requests(), IsEmpty()) << "no port is active";
    EXPECT_THAT(w.records(), ElementsAre("node1.1 10.0.0.1 node1"));
    host.link_up(2);
    EXPECT_THAT(w.requests(), ElementsAre("0 node1.2 DELETE node1.1", "0 node1.2 SET node1.2 10.0.0.1 node1"));
    EXPECT_THAT(w.records(), ElementsAre("node1.2 10.0.0.1 node1"));
}

TEST_F(port_events, a_silent_sa_delays_a_registration_by_three_waits)
{
    host.link_up(1);
    host.control("delete_ip 10.0.0.1"); // the answer to this Delete comes at once, and must not end the waits below
    host.link_down(1);
    w.requests();
    host.trace(trace_debug);
    w.subnet.faults.sa_silent = true;
    host.link_up(1);
    w.at(59);
    EXPECT_THAT(w.requests(),
                ElementsAre("0 node1.1 DELETE node1.1", "20 node1.1 DELETE node1.1", "40 node1.1 DELETE node1.1"));
    w.at(60);
    EXPECT_THAT(w.requests(), ElementsAre("60 node1.1 SET node1.1 10.0.0.1 node1"));
    const std::string timeout_line = "timeout on send DEL SR MAD";
    EXPECT_THAT(lines_of("ats_sa_set_new_sr"),
                ElementsAre(timeout_line, timeout_line, timeout_line, "ATS - ERROR DEL SR Failed"));
}

TEST_F(port_events, any_answer_to_a_delete_ends_the_wait)
{
    // The answer to the first Delete takes 2 * 15 ticks. The module waits only 20, then sends a second Delete. The late
    // answer ends the wait for the answer to the second one.
    w.subnet.faults.latency_ticks = 15;
    host.link_up(1);
    w.at(30);
    EXPECT_THAT(w.requests(), ElementsAre("0 node1.1 DELETE none", "20 node1.1 DELETE none",
                                          "30 node1.1 SET node1.1 10.0.0.1 node1"));
    w.at(100);
    w.subnet.faults.latency_ticks = 0;
    w.subnet.faults.answer_with(MAD_STATUS_BUSY, 1);
    host.control("set_host_name other");
    EXPECT_THAT(w.requests(), ElementsAre("100 node1.1 DELETE node1.1", "100 node1.1 SET node1.1 10.0.0.1 other"));
}

// A link goes down while the host registers through it. Events of the same HCA wait until the registration has ended.
// Events of another HCA do not wait.
TEST(port_events_of_two_hcas, wait_for_the_registration_before_them)
{
    ats_world w;
    ats_host& host = w.add({.ports = {1, 2}}).load();
    host.link_up(1, 1);
    host.link_up(2, 1);
    w.requests();
    w.subnet.faults.sa_silent = true;
    exec::task& rename_task = host.start("rename", [&] { host.control("set_host_name new"); });
    w.at(10);
    host.link_down(1, 1);
    host.link_up(1, 0);
    w.at(200);
    host.finish(rename_task);
    EXPECT_THAT(w.requests(),
                ElementsAre("0 node1.mthca1.1 DELETE node1.mthca1.1", "10 node1.1 DELETE none",
                            "30 node1.1 DELETE none", "50 node1.1 DELETE none",
                            "60 node1.mthca1.2 DELETE node1.mthca1.1", "70 node1.1 SET node1.1 10.0.0.1 new",
                            "80 node1.mthca1.2 DELETE node1.mthca1.1", "100 node1.mthca1.2 DELETE node1.mthca1.1",
                            "120 node1.mthca1.2 SET node1.mthca1.2 10.0.0.1 new"))
        << "the later requests of mthca1.1 do not reach the wire, because its link is down";
}

TEST_F(port_events, refused_sends_are_logged_and_neither_wait_nor_stop_the_next_request)
{
    const std::string unit = "ERROR sa/ats_sa_";
    const std::map<std::string, lines> table = {
        {"gsi_dtgrm_pool_get",
         {unit + "encode_service_rec_set_get_del_mad: gsi_dtgrm_pool_get() failed <-12>",
          unit + "send_service_rec_set_get_del_mad: ats_sa_encode_service_rec_set_get_del_mad failed <-1>"}},
        {"gsi_post_send_dtgrm", {unit + "send_service_rec_set_get_del_mad: gsi_post_send_dtgrm() failed <-16>"}},
    };
    for (const auto& [call, lines_of_each] : table) {
        SCOPED_TRACE(call);
        lines expected;
        for (const char* request :
             {"del of service record,", "del of service record,", "del of service record,", "set of service record"}) {
            expected.insert(expected.end(), lines_of_each.begin(), lines_of_each.end());
            expected.push_back(unit + "set_new_sr: Can't start SA " + request + " ret - -1");
        }
        host.faults().fail_calls(call);
        host.log();
        host.link_up(1);
        EXPECT_EQ(host.log(), expected);
        EXPECT_EQ(states(), "Active Down") << "the port is active without a record";
        EXPECT_THAT(w.requests(), IsEmpty());

        host.faults().fail_calls(call, 3); // only the Deletes
        host.link_down(1);
        host.link_up(1);
        EXPECT_THAT(w.requests(), ElementsAre("0 node1.1 SET node1.1 10.0.0.1 node1"));
        host.faults().disarm();
        host.link_down(1);
    }
}

// A Delete names the GID that the host registered last. A Set that could not be sent does not change this GID. But when
// the link of the active port goes down, the next Delete names that port, even if the Set of the port was not sent.
TEST_F(port_events, a_refused_set_keeps_the_gid_of_the_next_delete)
{
    host.link_up(2);
    host.link_up(1);
    w.requests();
    constexpr uint64_t delete_calls = 2, set_calls = 2; // for each: get a datagram, post it
    host.faults().fail_nth(delete_calls + set_calls);
    host.link_down(2);
    EXPECT_EQ(host.faults().failed_call(), "gsi_post_send_dtgrm");
    host.faults().disarm();
    EXPECT_THAT(w.requests(), ElementsAre("0 node1.1 DELETE node1.2"));
    host.control("set_host_name again");
    EXPECT_THAT(w.requests(), ElementsAre("0 node1.1 DELETE node1.2", "0 node1.1 SET node1.1 10.0.0.1 again"));

    host.link_up(2);
    host.faults().fail_nth(delete_calls + set_calls);
    host.link_down(1);
    EXPECT_EQ(host.faults().failed_call(), "gsi_post_send_dtgrm");
    host.faults().disarm();
    host.link_down(2); // although the Set of port 2 was not sent, the next Delete names port 2
    w.requests();
    host.link_up(1);
    EXPECT_THAT(w.requests(), ElementsAre("0 node1.1 DELETE node1.2", "0 node1.1 SET node1.1 10.0.0.1 again"));
}

TEST_F(port_events, a_port_that_cannot_be_read_stands_by_and_may_be_chosen_later)
{
    const struct {
        const char* call;
        // The module stops reading at the failed call. "none" means that it has not read the GID. Without the port's
        // attributes, the module does not know the LID of the SM. So no Delete is answered, and the Set follows after
        // three waits of 20 ticks.
        const char* last_request;
    } table[] = {{"kq_port_query", "60 node1.1 SET none 10.0.0.1 node1"},
                 {"kq_get_port_gid_tbl", "0 node1.1 SET none 10.0.0.1 node1"},
                 {"kq_get_port_partition_tbl", "0 node1.1 SET node1.1 10.0.0.1 node1"}};
    for (const auto& [call, last_request] : table) {
        SCOPED_TRACE(call);
        ats_world fresh;
        ats_host& other = fresh.add({.ports = {2}}).load();
        other.log();
        other.faults().fail_calls(call, 2);
        other.link_up(1);
        EXPECT_THAT(other.log(), ElementsAre("ERROR sa/handle_link_up: Fail to get port attributes on link up", ""));
        EXPECT_THAT(fresh.requests(), IsEmpty());
        other.link_up(1);
        other.log();
        other.link_up(2);
        fresh.at(100);
        EXPECT_THAT(fresh.requests().back(), last_request)
            << "through the lower port, although only the other one could be read";

        other.link_down(2);
        other.faults().fail_calls(call, 1);
        other.link_up(2);
        EXPECT_THAT(other.log(), ElementsAre("ERROR sa/handle_link_up: ATS - handle_link_up:458 Fail to get port "
                                             "attributes on link up"));
        EXPECT_THAT(fresh.requests(), IsEmpty());
    }
}

TEST_F(port_events, requests_go_to_the_new_sm_after_it_has_changed)
{
    host.link_up(1);
    host.link_up(2);
    w.raw_requests();
    host.trace(trace_debug);
    host.log();
    EXPECT_TRUE(w.subnet.set_sm(99, 3));
    w.sim->settle();
    EXPECT_THAT(lines_of("ats_async_event_cb"),
                testing::IsSupersetOf({"Received sm_lid_change <port:1>, <new sm lid:63>",
                                       "Received sm_lid_change <port:2>, <new sm lid:63>"}));
    EXPECT_THAT(w.raw_requests(), IsEmpty());
    EXPECT_EQ(states(), "Active UP");
    host.resolve("10.0.0.1");
    const std::vector<wire_request> requests = w.raw_requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].destination.lid, 99);
    EXPECT_EQ(requests[0].destination.sl, 3);
}

TEST_F(port_events, a_third_port_is_logged_and_not_used)
{
    ats_host& big = w.add({.name = "big", .ports = {3}});
    EXPECT_TRUE(big.try_load());
    EXPECT_THAT(big.log(), Contains("ATS - hca mthca0 has 3 ports, only the first 2 are used"));
    big.link_up(3);
    EXPECT_THAT(big.log(), ElementsAre("ERROR sa/handle_link_up: port 3 is not used"));
    big.link_down(3);
    EXPECT_THAT(big.log(), ElementsAre("ERROR sa/handle_link_down: port 3 is not used"));
    EXPECT_THAT(w.requests(), IsEmpty());
    big.link_up(2);
    EXPECT_THAT(w.requests(), ElementsAre("0 big.2 DELETE none", "0 big.2 SET big.2 10.0.0.1 big"));
}

} // namespace
