// Loads the module on hosts that differ in their HCAs, in their parameters, and in the functions that IBAT and UCM
// publish. Lets kernel calls fail during the load. After a failed load, nothing may remain, and the next load must
// succeed.
#include <map>
#include <set>

#include "host/stack/gsi-service.h"
#include "kernel/proc.h"
#include "tests/ats/failing-calls.h"

namespace
{

using lines = std::vector<std::string>;

// Returns the error number that the module's entry function has returned, or 0.
int error_number_of(const ats::result<>& result)
{
    const std::string words = "start-up failed with ";
    if (result) return 0;
    const std::string& text = result.error().text;
    const size_t position = text.find(words);
    return position == std::string::npos ? 0 : std::stoi(text.substr(position + words.size()));
}

struct start_up : testing::TestWithParam<std::vector<int>> {
};

// An HCA cannot work if one of these calls fails, so the load must fail, too.
const std::set<std::string> needed_calls = {"kq_hca_open", "kq_hca_query", "gsi_register_class",
                                            "gsi_dtgrm_pool_create_named", "kq_set_sleepable_async_event_cb"};

TEST_P(start_up, leaves_nothing_behind_whatever_fails)
{
    for_every_failing_call([](failing_calls calls) {
        ats_world w;
        ats_host& host = w.add({.ports = GetParam()});
        for (size_t hca = 0; hca < GetParam().size(); ++hca) host.link_up(1, static_cast<int>(hca));
        ats::result<> result;
        const failed_calls failures = with_failing_calls(host, calls, [&] { result = host.try_load(); });
        w.at(300);
        EXPECT_FALSE(result && needed_calls.contains(failures.last)) << "the load succeeded without " << failures.last;
        if (result) host.unload();
        EXPECT_EQ(host.leftovers(), "");
        EXPECT_THAT(w.records(), IsEmpty());
        host.load();
        EXPECT_EQ(w.records().size(), GetParam().size());
        host.unload();
        EXPECT_EQ(host.leftovers(), "");
        EXPECT_THAT(host.peers().calls, testing::Not(Contains(HasSubstr("detach of another handle"))));
        return failures;
    });
}

INSTANTIATE_TEST_SUITE_P(hcas, start_up, testing::Values(std::vector{2}, std::vector{1, 2}),
                         [](const auto& info) { return std::to_string(info.param.size()); });

TEST(start_up_of, three_hcas_binds_the_first_one_only)
{
    ats_world w;
    ats_host& host = w.add({.ports = {1, 1, 1}, .trace = trace_debug}).load();
    lines order;
    for (const std::string& line : host.log())
        if (line.find("init ats for hca") != std::string::npos || line.find(" ctxt=") != std::string::npos)
            order.push_back(line.substr(line.find(": ") + 2));
    EXPECT_THAT(order, ElementsAre("init ats for hca mthca0", "full functionality  ctxt=PTR", "init ats for hca mthca1",
                                   "sa_only!!  ctxt=PTR", "init ats for hca mthca2", "sa_only!!  ctxt=PTR"));
    EXPECT_THAT(host.peers().calls, ElementsAre("attach", "ucm attach"));
    EXPECT_EQ(host.peers().references(), 6);
    for (const stack::gsi_pool_view& pool : host.machine().get<stack::gsi>().pools()) EXPECT_EQ(pool.size, 16u);
    for (int hca : {2, 0, 1}) host.link_up(1, hca);
    EXPECT_EQ(w.records().size(), 3u);
    host.unload();
    EXPECT_THAT(host.peers().calls, ElementsAre("attach", "ucm attach", "ucm detach", "detach"));
    EXPECT_THAT(w.records(), IsEmpty());
}

TEST(start_up_of, an_hca_that_fails_says_why)
{
    const std::multimap<std::string, std::string> table = {
        {"kq_hca_open", "ats_sa_init: kq_hca_open() failed <-176>"},
        {"kq_hca_query", "ats_init_static_port_attributes: ats_init_static_port_attributes:618 - fail to query hca"},
        {"kq_hca_query", "ats_sa_init: Can't set local port static attributes."},
        {"gsi_register_class", "ats_sa_init: Can't register to GSI"},
        {"gsi_dtgrm_pool_create_named", "ats_sa_init: Can't allocate GSI datagram pool"},
        {"kq_set_sleepable_async_event_cb", "ats_sa_init: ATS - kq_set_sleepable_async_event_cb() failed <-176>"},
    };
    ats_world w;
    ats_host& host = w.add();
    for (const auto& [call, reason] : table) {
        SCOPED_TRACE(call);
        host.faults().fail_calls(call);
        EXPECT_EQ(error_number_of(host.try_load()), -6);
        const lines log = host.log();
        EXPECT_THAT(log, Contains(StartsWith("ERROR sa/" + reason)));
        EXPECT_THAT(log, Contains("ERROR module/ats_module_init: ATS init error  mthca0"));
        EXPECT_EQ(host.leftovers(), "");
    }
}

TEST(start_up_of, an_hca_that_a_peer_refuses_detaches_from_nothing)
{
    ats_world w;
    ats_host& host = w.add();
    host.peers().accepts = false;
    EXPECT_EQ(error_number_of(host.try_load()), -6);
    EXPECT_THAT(host.log(), Contains(HasSubstr("Could not attach to IBAT")));
    EXPECT_THAT(host.peers().calls, ElementsAre("attach"));
    EXPECT_EQ(host.leftovers(), "");
    host.peers().accepts = true;
    host.peers().ucm_accepts = false;
    host.load(); // the module works without UCM
    EXPECT_THAT(host.log(), Contains(HasSubstr("Could not attach to UCM")));
    host.unload();
    EXPECT_THAT(host.peers().calls, ElementsAre("attach", "attach", "ucm attach", "detach"));
    EXPECT_EQ(host.leftovers(), "");
}

// HCA 1 fails. Then ats_stop visits all three HCAs in their order. HCA 0 deletes its record. HCA 1 closes its handle.
// HCA 2 has not started, and holds nothing.
TEST(start_up_of, the_second_of_three_hcas_failing_stops_them_all)
{
    ats_world w;
    ats_host& host = w.add({.ports = {1, 1, 1}, .trace = trace_debug});
    host.link_up(1);
    host.peers().attach_takes_ticks = 10;
    exec::task& insmod = host.start("insmod", [&] { EXPECT_EQ(error_number_of(host.try_load()), -6); });
    w.at(5); // HCA 0 has registered, and waits for attach; HCA 1 has not begun
    EXPECT_THAT(w.records(), ElementsAre("node1.1 10.0.0.1 node1"));
    host.faults().fail_calls("gsi_dtgrm_pool_create_named");
    host.finish(insmod);
    lines order;
    for (const std::string& line : host.log())
        if (line.find("ATS init error") != std::string::npos || line.find("/ats_stop:") != std::string::npos)
            order.push_back(line.substr(line.find(": ") + 2));
    EXPECT_THAT(order, ElementsAre("ATS init error  mthca1", "stop hca 0", "stop hca 1", "stop hca 2"));
    EXPECT_THAT(host.peers().calls, ElementsAre("attach", "ucm attach", "ucm detach", "detach"));
    EXPECT_THAT(w.records(), IsEmpty());
    EXPECT_EQ(host.leftovers(), "");
}

// HCA 1 fails, and gives back its datagram pool and its GSI classes. Then the module stops HCA 0. This takes some
// ticks, because HCA 0 waits for the SA. After that, the module closes the handle of HCA 1.
TEST(start_up_of, the_second_of_two_hcas_failing_gives_back_its_own_first)
{
    for (const char* call : {"gsi_dtgrm_pool_create_named", "kq_set_sleepable_async_event_cb"}) {
        SCOPED_TRACE(call);
        ats_world w;
        ats_host& host = w.add({.ports = {1, 1}, .trace = trace_debug});
        host.link_up(1);
        host.peers().attach_takes_ticks = 10;
        exec::task& insmod = host.start("insmod", [&] { EXPECT_EQ(error_number_of(host.try_load()), -6); });
        w.at(5);
        host.faults().fail_calls(call);
        w.subnet.faults.sa_silent = true;
        w.at(20); // the first HCA waits for the SA to delete its record
        EXPECT_EQ(host.machine().get<stack::gsi>().pools().size(), 1u);
        host.finish(insmod);
        const lines log = host.log();
        EXPECT_EQ(std::ranges::count(log, "DEBUG sa/ats_sa_stop: Deregistered GSI class"), 1) << "the first HCA's";
        EXPECT_EQ(host.leftovers(), "");
    }
}

TEST(start_up_of, a_taken_control_file_fails_and_is_logged)
{
    ats_world w;
    ats_host& host = w.add();
    host.run([] { EXPECT_TRUE(proc_mkdir("dorvex") && proc_mkdir("dorvex/ats")); });
    host.run([] { EXPECT_TRUE(create_proc_entry("dorvex/ats/control", 0)); });
    EXPECT_EQ(error_number_of(host.try_load()), -12);
    EXPECT_EQ(host.log().back(), "ERROR module/ats_module_init: Error creating /proc entry.");
    host.run([] { remove_proc_entry("dorvex/ats/control"); });
    EXPECT_EQ(host.leftovers(), "");
    host.load();
    kernel::proc_listing file;
    EXPECT_EQ(host.machine().proc.stat("dorvex/ats/control", &file), 0);
    EXPECT_EQ(file.mode, 0644u);
    host.unload();
}

TEST(start_up_of, a_slow_host_shows_its_version_before_it_ends)
{
    ats_world w;
    ats_host& host = w.add();
    host.peers().attach_takes_ticks = 10;
    exec::task& insmod = host.start("insmod", [&] { host.load(); });
    w.at(5);
    EXPECT_THAT(host.read("dorvex/ats/version"), StartsWith("ats " ATS_VERSION " "));
    host.finish(insmod);
    host.unload();
}

TEST(start_up_of, no_hca_loads_and_does_nothing)
{
    ats_world w;
    ats_host& host = w.add({.ports = {}, .trace = trace_debug}).load();
    EXPECT_THAT(host.log(), ElementsAre("LOGGER: Added key dorvex/modules/ats/, trace level 4",
                                        "DEBUG module/ats_module_init: ats_attach_ibat is 1",
                                        "ERROR module/ats_get_hcas_names: kq_list_hcas() failed with n_hcas=0",
                                        "DEBUG module/ats_module_init: ats_module_init - got -176 hcas"));
    EXPECT_THAT(host.peers().calls, IsEmpty());
    EXPECT_THAT(host.machine().inter_modules.names(), Contains("ATS_SA_SET_IP_ADDR"));
    for (const char* command : {"rarp 0x1", "set_host_name other", "set_ip_addrs 10.0.0.2", "delete_ip 10.0.0.2"})
        host.control(command);
    host.read("dorvex/ats/control");
    const lines log = host.log();
    EXPECT_EQ(log.front(), "ATS - there is no hca, can't send rarp");
    EXPECT_EQ(log.back(), "SA verification period:60   verification skew(%): 1");
    host.unload();
    EXPECT_EQ(host.leftovers(), "");
}

// All places of the table of HCAs are in use. If a loop goes beyond the last one, the address sanitizer notices.
TEST(start_up_of, the_largest_number_of_hcas_uses_no_memory_beyond_the_table)
{
    constexpr int hca_count = 32;
    ats_world w;
    ats_host& host = w.add({.ports = std::vector<int>(hca_count, 1)}).load();
    for (int hca = 0; hca < hca_count; ++hca) host.link_up(1, hca);
    host.control("set_host_name other");
    host.control("set_ip_addrs 10.0.0.2");
    EXPECT_THAT(w.records(), testing::SizeIs(hca_count));
    EXPECT_THAT(w.records(), testing::Each(testing::EndsWith(" 10.0.0.2 other")));
    host.read("dorvex/ats/control");
    host.unload();
    EXPECT_EQ(host.leftovers(), "");
    EXPECT_THAT(w.records(), IsEmpty());
}

TEST(start_up_of, a_host_with_bad_or_missing_parameters_succeeds)
{
    ats_world w;
    ats_host& host = w.add({.name = "", .address = "1.2.3"}).load();
    host.link_up(1);
    EXPECT_THAT(host.log(), ElementsAre("LOGGER: Added key dorvex/modules/ats/, trace level 1",
                                        "ERROR sa/ats_init_static_port_attributes: ATS - can't parse ip addr 1.2.3"));
    EXPECT_THAT(w.records(), ElementsAre(".1 0.0.0.0 "));

    ats_host& plain = w.add({.name = "plain", .trace = trace_debug});
    EXPECT_TRUE(plain.machine().modules.insmod(world::default_module_folder() + "/ats.so"));
    plain.link_up(1);
    EXPECT_THAT(w.records(), ElementsAre(".1 0.0.0.0 ", "plain.1 0.0.0.0 No hostname"));
}

// ---- the connection to IBAT and UCM ----

TEST(binding, needs_only_the_functions_of_ibat_that_it_uses)
{
    const lines names = {"ibat_attach_fn", "ibat_detach_fn", "ibat_process_arp_data_fn", "ibat_seq_cache_lookup_fn"};
    const lines words = {"attach", "detach", "process arp data", "seq cache lookup"};
    const std::string cannot_delete = "ERROR sa/ats_sa_stop: Can't start SA del of service record, ret - -1";
    for (size_t i = 0; i < names.size(); ++i) {
        for (int attach_ibat : {0, 1}) {
            SCOPED_TRACE(names[i] + (attach_ibat ? "" : ", no attachment"));
            ats_world w;
            ats_host& host = w.add({.more_parameters = "ats_attach_ibat=" + std::to_string(attach_ibat)});
            host.link_up(1);
            host.peers().withdraw(names[i]);
            const ats::result<> result = host.try_load();
            if (!attach_ibat && names[i] != "ibat_seq_cache_lookup_fn") {
                EXPECT_TRUE(result);
                EXPECT_THAT(host.peers().calls, ElementsAre("ucm attach")) << "IBAT's attach is never called";
                EXPECT_EQ(host.peers().references(), 3);
                host.unload();
            } else {
                EXPECT_EQ(error_number_of(result), -6);
                const lines log = host.log();
                EXPECT_THAT(log, Contains("ERROR api/ats_ibat_init: Could not get IBAT " + words[i] + " function"));
                EXPECT_EQ(std::ranges::count(log, cannot_delete), 1) << "the SA client is stopped once";
                EXPECT_THAT(log.back(), HasSubstr("ATS init error")) << "nothing else is tried";
            }
            EXPECT_EQ(host.leftovers(), "");
            EXPECT_THAT(w.records(), IsEmpty());
        }
    }
}

TEST(binding, a_refusing_ibat_fails_the_load_and_a_refusing_ucm_does_not)
{
    ats_world w;
    ats_host& host = w.add();
    host.link_up(1);
    host.peers().accepts = false;
    host.peers().attach_takes_ticks = 50; // meanwhile port 1 becomes the active port and registers
    EXPECT_EQ(error_number_of(host.try_load()), -6);
    EXPECT_THAT(host.log(), ElementsAre(StartsWith("LOGGER"), "ERROR api/ats_ibat_init: Could not attach to IBAT",
                                        "ERROR api/ats_init: ats_ibat_init failed -255",
                                        "ERROR module/ats_module_init: ATS init error  mthca0"));
    EXPECT_THAT(w.requests(), ElementsAre("0 node1.1 DELETE none", "0 node1.1 SET node1.1 10.0.0.1 node1",
                                          "50 node1.1 DELETE node1.1"));
    EXPECT_EQ(host.leftovers(), "");
    host.log();

    host.peers().accepts = true;
    host.peers().ucm_accepts = false;
    host.trace(2);
    host.load();
    EXPECT_THAT(host.log(), ElementsAre(StartsWith("LOGGER"), "ERROR api/ats_ucm_init: Could not attach to UCM",
                                        "WARNING api/ats_init: ats_ucm_init failed -255"));
    EXPECT_EQ(host.peers().references(), 4);
    host.unload();
    EXPECT_EQ(host.leftovers(), "");

    for (const auto& [name, line] : std::map<std::string, std::string>{
             {"ucm_rarp_attach_fn", "WARNING api/ats_ucm_init: Could not get UCM RARP attach function"},
             {"ucm_rarp_detach_fn", "ERROR api/ats_ucm_init: Could not get UCM RARP detach function"}}) {
        ats_host& other = w.add({.name = name, .trace = trace_debug});
        other.peers().withdraw(name);
        other.load();
        EXPECT_THAT(other.log(), Contains(line));
        EXPECT_EQ(other.peers().references(), 4);
        other.unload();
        EXPECT_THAT(other.log(), Contains("DEBUG api/ats_ucm_stop: Was not attached to UCM module"));
        EXPECT_EQ(other.leftovers(), "");
    }
}

} // namespace
