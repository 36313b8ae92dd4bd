// Events and answers that the simulated fabric never produces: events of unknown types, or of ports and HCAs that do
// not exist; an answer that arrives before the sending call has returned; a link that goes down during a call. This
// file has its own versions of some calls between ats and the stack. It loads a copy of the module in which the names
// of these calls are replaced.
#include <algorithm>
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
    {"kq_set_sleepable_async_event_cb", "my_set_sleepable_async_event_cb"},
    {"gsi_dtgrm_pool_get", "own_dtgrm_pool_get"},
    {"gsi_post_send_dtgrm", "own_post_send_dtgrm"},
};
static_assert(std::ranges::all_of(own_calls, [](const auto& call) { return call.first.size() == call.second.size(); }),
              "a name in the image can only be replaced by one of the same length");

kq_async_event_fn_t event_callback; // of the module's last subscription
kq_hca_h_t event_hca;
std::function<void()> datagram_hook; // called once, before the module takes its next datagram from the pool
std::function<void()> post_hook;     // called after every post, before the post returns to the module

} // namespace

KERNEL_API kq_return_t my_set_sleepable_async_event_cb(kq_hca_h_t hca, const kq_request_event_record_t* request,
                                                       kq_async_event_fn_t callback)
{
    event_callback = callback;
    event_hca = hca;
    return kq_set_sleepable_async_event_cb(hca, request, callback);
}

KERNEL_API int own_dtgrm_pool_get(gsi_dtgrm_pool_handle_t pool, gsi_dtgrm_t** datagram)
{
    const auto hook = std::exchange(datagram_hook, {});
    if (hook) hook();
    return gsi_dtgrm_pool_get(pool, datagram);
}

KERNEL_API int own_post_send_dtgrm(gsi_class_handle_t handle, gsi_dtgrm_t* datagram, uint64_t* transaction_id)
{
    const int result = gsi_post_send_dtgrm(handle, datagram, transaction_id);
    if (post_hook) post_hook();
    return result;
}

namespace
{

// Writes a copy of the module in which the names in own_calls are replaced. Returns its path.
std::string changed_image()
{
    std::ifstream original(world::default_module_folder() + "/ats.so", std::ios::binary);
    std::string image{std::istreambuf_iterator<char>(original), {}};
    for (const auto& [real, own] : own_calls) {
        const std::string symbol = '\0' + std::string(real) + '\0'; // excludes longer names that contain this name
        size_t position = image.find(symbol);
        while (position != std::string::npos) {
            image.replace(position + 1, own.size(), own);
            position = image.find(symbol, position + 1);
        }
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
    ~interposed() override
    {
        datagram_hook = {};
        post_hook = {};
    }

    ats_world w;
    ats_host& host = w.add({.ports = {2}});
};

TEST_F(interposed, odd_events_are_logged_and_change_nothing)
{
    host.link_up(1);
    host.link_up(2);
    w.requests();
    host.trace(trace_debug);

    const kq_hca_h_t own = event_hca, unknown = reinterpret_cast<kq_hca_h_t>(0x77);
    const struct {
        kq_hca_h_t hca;
        uint32_t type;
        uint8_t port;
        const char* line;
    } table[] = {
        {own, 0x30000, 1,
         "DEBUG sa/ats_async_event_cb: Received async event <type: 30000> <port:1>"}, // link up and down
        {own, 0, 2, "DEBUG sa/ats_async_event_cb: Received async event <type: 0> <port:2>"},
        {own, 0x10000, 0, "ERROR sa/handle_link_up: port 0 is not used"},
        {own, 0x10000, 1, "DEBUG sa/ats_async_event_cb: Received link_up <port:1>"}, // of the active port
        {own, 0x20000, 255, "ERROR sa/handle_link_down: port 255 is not used"},
        {own, 0x40000, 0, "ERROR sa/ats_sa_get_port_attr_and_sgid: port 0 is not used"},
        {unknown, 0x20000, 1, "ERROR sa/ats_async_event_cb: couldn't find ats conext"},
    };
    for (const auto& [hca, type, port, line] : table) {
        kq_event_record_st event{};
        event.event_type = static_cast<kq_async_record_t>(type);
        event.hca_app_h = hca;
        event.port_num = port;
        host.log();
        host.run([&] { event_callback(event); });
        EXPECT_THAT(host.log(), Contains(line));
    }
    EXPECT_THAT(w.requests(), IsEmpty());
    EXPECT_THAT(w.records(), ElementsAre("node1.1 10.0.0.1 node1"));
}

TEST_F(interposed, an_answer_may_come_before_the_call_that_asked_returns)
{
    post_hook = [] { schedule_timeout_uninterruptible(1); };
    host.link_up(1);
    w.at(10);
    EXPECT_THAT(w.requests(), ElementsAre("0 node1.1 DELETE none", "1 node1.1 SET node1.1 10.0.0.1 node1"));
    reverse_lookup lookup;
    EXPECT_EQ(host.reverse(host.gid(1), lookup), ibat_stat_pending);
    EXPECT_EQ(lookup.answers.size(), 1u);
}

TEST_F(interposed, a_request_leaves_through_the_port_that_was_active_when_it_began)
{
    host.link_up(1);
    host.link_up(2);
    w.requests();
    datagram_hook = [&] {
        EXPECT_TRUE(w.subnet.link_down("node1", "mthca0", 1));
        schedule_timeout_uninterruptible(1);
    };
    host.control("delete_ip 10.0.0.1");
    EXPECT_THAT(w.requests(), ElementsAre("0 node1.2 DELETE node1.1", "0 node1.2 SET node1.2 10.0.0.1 node1"));
}

} // namespace
