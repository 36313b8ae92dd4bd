// A whole life of the module, line by line: administrators read these logs, and scripts look for their words.
#include "tests/ats/ats-world.h"

namespace
{

using lines = std::vector<std::string>;

lines joined(std::initializer_list<lines> parts)
{
    lines all;
    for (const lines& each : parts) all.insert(all.end(), each.begin(), each.end());
    return all;
}

lines started(const std::string& number, int ports, const std::string& ending)
{
    const lines port_addresses = {
        "DEBUG sa/ats_init_static_port_attributes: Setting port 1 to ip addr is 10.0.0.1 0x0100000a",
        "DEBUG sa/ats_init_static_port_attributes: Setting port 2 to ip addr is 10.0.0.1 0x0100000a"};
    const lines registered = {"DEBUG sa/ats_sa_init:  port 1 after gsi_register_class, ret = 0 gsi handle PTR",
                              "DEBUG sa/ats_sa_init:  port 2 after gsi_register_class, ret = 0 gsi handle PTR"};
    return joined({{"DEBUG module/ats_module_init: init ats for hca mthca" + number,
                    "DEBUG sa/ats_sa_init: ats_hostName_str is node1",
                    "DEBUG sa/ats_init_static_port_attributes: This hca has " + std::to_string(ports) + " ports"},
                   {port_addresses.begin(), port_addresses.begin() + ports},
                   {registered.begin(), registered.begin() + ports},
                   {"DEBUG sa/ats_sa_init:  after gsi_dtgrm_pool_create, ret = 0", "DEBUG api/ats_init: " + ending,
                    "DEBUG module/ats_module_init: hca " + number + " name is mthca" + number, ""}});
}

lines sent(int port, int transaction)
{
    const std::string sender = "DEBUG sa/ats_sa_send_service_rec_set_get_del_mad: ";
    return {
        sender + " about to send MAD:", sender + "send mad via port " + std::to_string(port) + "(PTR), gsi handle PTR",
        sender + " gsi_post_send_dtgrm() on dtgrm PTR succeeded ret = 0",
        sender + " sent dtgrm transaction id is 0x000000000000000" + std::to_string(transaction)};
}

// Of the completion context: the request has left, and its answer is here.
lines answered(int transaction, bool is_own)
{
    lines all = {"DEBUG sa/ats_sa_gsi_send_compl_cb: Datagram <PTR> sent.",
                 "DEBUG sa/ats_sa_gsi_recv_compl_cb: Datagram <PTR> received.",
                 "DEBUG sa/ats_sa_gsi_decode_recv_dtgrm:  ServiceRecord reply MAD received, transaction-id 0x0" +
                     std::to_string(transaction) + "00000000000000",
                 "DEBUG sa/ats_sa_gsi_decode_recv_dtgrm:  Incoming mad has status SUCCESS."};
    if (is_own)
        all.push_back("DEBUG sa/ats_sa_gsi_decode_recv_dtgrm:  arp reply for local ip addr 10.0.0.1 setting it to be "
                      "static !");
    return all;
}

const lines dropped = {"DEBUG sa/ats_sa_gsi_recv_compl_cb:  Drop delete response mad"};
const lines deregistered = {"DEBUG sa/ats_sa_stop: Deregistered GSI class"};

lines counted(int port, int count)
{
    const std::string rest = " through the GSI port " + std::to_string(port) + ": " + std::to_string(count) + ".";
    return {"DEBUG sa/ats_sa_stop:  Packets sent    " + rest, "DEBUG sa/ats_sa_stop:  Packets received" + rest};
}

TEST(life, of_two_hcas_line_by_line)
{
    ats_world w;
    ats_host& host = w.add({.ports = {2, 1}, .trace = trace_debug}).load();
    lines log = host.log();
    ASSERT_GT(log.size(), 2u);
    EXPECT_THAT(lines(log.end() - 2, log.end()),
                testing::Each(StartsWith("DEBUG api/calc_verify_timeout: timeout=60")));
    log.resize(log.size() - 2);
    EXPECT_EQ(log, joined({{"LOGGER: Added key dorvex/modules/ats/, trace level 4",
                            "DEBUG module/ats_module_init: ats_attach_ibat is 1",
                            "DEBUG module/ats_module_init: ats_module_init - got 2 hcas"},
                           started("0", 2, "full functionality  ctxt=PTR"),
                           started("1", 1, "sa_only!!  ctxt=PTR")}));

    host.link_up(1);
    const std::string event = "DEBUG sa/ats_async_event_cb: ", refresh = "DEBUG sa/ats_sa_get_port_attr_and_sgid: ";
    const std::string choice = "DEBUG sa/handle_no_active_port: ";
    EXPECT_EQ(
        host.log(),
        joined({{"DEBUG module/ats_find_context: looking for hca 0x1",
                 "DEBUG module/ats_find_context: found hca=0x1  idx=0",
                 event + "ats_async_event_cb is going to take a sem", event + "ats_async_event_cb has taken a sem",
                 event + "Received link_up <port:1>", refresh + " port_attrib.port_sma_address_info.sm_lid: 0x1.",
                 refresh + " port_attrib.port_sma_address_info.service_level: 0x0.",
                 refresh + " port 1 pkey 0xffff gid: 0xFE800000000000000200000000010001",
                 choice + " Setting port 1 to be the active port (PTR)"},
                sent(1, 1),
                answered(1, false),
                dropped,
                sent(1, 2),
                {choice + " sending SA Set SR, ret = 0", event + "ats_async_event_cb release the sem"},
                answered(2, true),
                {"DEBUG api/ats_process_sa_reply: mad_stat=0  ats=PTR",
                 "DEBUG api/ats_process_rarp_data: found 0 maching RARP reqs for gid "
                 "0xFE800000000000000200000000010001"}}));

    host.unload();
    const lines received = {"DEBUG sa/ats_sa_stop: Received response on send DEL SR MAD"};
    EXPECT_EQ(host.log(),
              joined({{"DEBUG api/ats_stop: stop hca 0"},
                      sent(1, 3),
                      answered(3, true),
                      dropped,
                      received,
                      sent(1, 4),
                      answered(4, false),
                      dropped,
                      received,
                      deregistered,
                      deregistered,
                      counted(1, 4),
                      counted(2, 0),
                      {"DEBUG api/ats_stop: stop hca 1",
                       "ERROR sa/ats_sa_send_service_rec_set_get_del_mad: ats_sa_send_service_rec_set_get_del_mad No "
                       "active port, exit",
                       "ERROR sa/ats_sa_stop: Can't start SA del of service record, ret - -1"},
                      deregistered,
                      counted(1, 0),
                      {"ATS - module stopped "}}));
    EXPECT_THAT(w.requests(), ElementsAre("0 node1.1 DELETE none", "0 node1.1 SET node1.1 10.0.0.1 node1",
                                          "0 node1.1 DELETE node1.1", "0 node1.1 DELETE none"));
    EXPECT_EQ(host.held(), "");
}

} // namespace
