// Events that no fabric here makes by itself: events of other kinds and of ports and HCAs that are not there, answers
// that are faster than the call that asked, a link that goes down in the middle of a call. For these the test stands
// between ats and the stack: it loads an image in which the names of some kernel calls are replaced by those of its own
// calls.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <unistd.h>

#include "gsi.h"
#include "tests/ats/ats-world.h"
#include "verbs.h"

namespace
{

constexpr std::pair<std::string_view, std::string_view> own_calls[] = {
    {"kq_set_sleepable_async_event_cb", "noted_sleepable_async_event_cb_"},
    {"gsi_dtgrm_pool_get", "own_dtgrm_pool_get"},
    {"gsi_post_send_dtgrm", "own_post_send_dtgrm"},
};

kq_async_event_fn_t noted_callback;
kq_hca_h_t noted_hca;
std::function<void()> before_datagram; // the next time that one is taken
std::function<void()> after_post;

} // namespace

KERNEL_API kq_return_t noted_sleepable_async_event_cb_(kq_hca_h_t hca, const kq_request_event_record_t* request,
                                                       kq_async_event_fn_t callback)
{
    noted_callback = callback;
    noted_hca = hca;
    return kq_set_sleepable_async_event_cb(hca, request, callback);
}

KERNEL_API int own_dtgrm_pool_get(gsi_dtgrm_pool_handle_t pool, gsi_dtgrm_t** datagram)
{
    if (const auto first = std::exchange(before_datagram, {})) first();
    return gsi_dtgrm_pool_get(pool, datagram);
}

KERNEL_API int own_post_send_dtgrm(gsi_class_handle_t handle, gsi_dtgrm_t* datagram, uint64_t* transaction_id)
{
    const int result = gsi_post_send_dtgrm(handle, datagram, transaction_id);
    if (after_post) after_post();
    return result;
}

namespace
{

// A copy of the module with the names replaced.
std::string changed_image()
{
    std::ifstream original(world::default_module_folder() + "/ats.so", std::ios::binary);
    std::string image{std::istreambuf_iterator<char>(original), {}};
    for (const auto& [real, own] : own_calls) {
        const std::string symbol = '\0' + std::string(real) + '\0'; // and not a text that begins with the name
        for (size_t at = image.find(symbol); at != std::string::npos; at = image.find(symbol, at + 1))
            image.replace(at + 1, own.size(), own);
    }
    const std::string path = testing::TempDir() + "ats-interposed-" + std::to_string(getpid()) + ".so";
    std::ofstream(path, std::ios::binary) << image;
    return path;
}

struct interposed : testing::Test {
    interposed()
    {
        const std::string image = changed_image();
        EXPECT_TRUE(host.try_load(image));
        std::filesystem::remove(image);
    }

    ats_world w;
    ats_host& host = w.add({.ports = {2}});
};

TEST_F(interposed, odd_events_are_told_and_change_nothing)
{
    host.link_up(1);
    host.link_up(2);
    w.requests();
    host.trace(trace_debug);

    const kq_hca_h_t own = noted_hca, of_nobody = reinterpret_cast<kq_hca_h_t>(0x77);
    const struct {
        kq_hca_h_t hca;
        uint32_t type;
        uint8_t port;
        const char* line;
    } table[] = {
        {own, 0x30000, 1, "DEBUG sa/ats_async_event_cb: Received async event <type: 30000> <port:1>"}, // up and down
        {own, 0, 2, "DEBUG sa/ats_async_event_cb: Received async event <type: 0> <port:2>"},
        {own, 0x10000, 0, "ERROR sa/handle_link_up: port 0 is not used"},
        {own, 0x10000, 1, "DEBUG sa/ats_async_event_cb: Received link_up <port:1>"}, // the active port
        {own, 0x20000, 255, "ERROR sa/handle_link_down: port 255 is not used"},
        {own, 0x40000, 0, "ERROR sa/ats_sa_get_port_attr_and_sgid: port 0 is not used"},
        {of_nobody, 0x20000, 1, "ERROR sa/ats_async_event_cb: couldn't find ats conext"},
    };
    for (const auto& [hca, type, port, line] : table) {
        kq_event_record_st event{};
        event.event_type = static_cast<kq_async_record_t>(type);
        event.hca_app_h = hca;
        event.port_num = port;
        host.log();
        host.run([&] { noted_callback(event); });
        EXPECT_THAT(host.log(), Contains(line));
    }
    EXPECT_THAT(w.requests(), IsEmpty());
    EXPECT_THAT(w.records(), ElementsAre("node1.1 10.0.0.1 node1"));
}

TEST_F(interposed, an_answer_may_come_before_the_call_that_asked_returns)
{
    after_post = [] { schedule_timeout_uninterruptible(1); };
    host.link_up(1);
    w.at(10);
    EXPECT_THAT(w.requests(), ElementsAre("0 node1.1 DELETE none", "1 node1.1 SET node1.1 10.0.0.1 node1"));
    asker who;
    EXPECT_EQ(host.reverse(host.gid(1), who), ibat_stat_pending);
    EXPECT_EQ(who.answers.size(), 1u);
    after_post = {};
}

TEST_F(interposed, a_request_leaves_through_the_port_that_was_active_when_it_began)
{
    host.link_up(1);
    host.link_up(2);
    w.requests();
    before_datagram = [&] {
        EXPECT_TRUE(w.subnet.link_down("node1", "mthca0", 1));
        schedule_timeout_uninterruptible(1);
    };
    host.control("delete_ip 10.0.0.1");
    EXPECT_THAT(w.requests(), ElementsAre("0 node1.2 DELETE node1.1", "0 node1.2 SET node1.2 10.0.0.1 node1"));
}

} // namespace
