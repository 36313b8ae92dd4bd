// Events that no fabric here tells of: other kinds, several at once, ports and HCAs that are not there. For these the
// test stands between ats and the verbs layer: it loads an image in which the name of one kernel call is replaced by
// that of a call of its own, keeps the callback that ats subscribes, and passes the subscription on.
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/ats/ats-world.h"
#include "verbs.h"

namespace
{

constexpr std::string_view real_call = "kq_set_sleepable_async_event_cb";
constexpr std::string_view own_call = "noted_sleepable_async_event_cb_";
static_assert(real_call.size() == own_call.size());

kq_async_event_fn_t noted_callback;
kq_hca_h_t noted_hca;

} // namespace

KERNEL_API kq_return_t noted_sleepable_async_event_cb_(kq_hca_h_t hca, const kq_request_event_record_t* request,
                                                       kq_async_event_fn_t callback)
{
    noted_callback = callback;
    noted_hca = hca;
    return kq_set_sleepable_async_event_cb(hca, request, callback);
}

namespace
{

// A copy of the module with the name replaced.
std::string changed_image()
{
    std::ifstream original(ATS_MODULE_DIR "/ats.so", std::ios::binary);
    std::string image{std::istreambuf_iterator<char>(original), {}};
    for (size_t at = image.find(real_call); at != std::string::npos; at = image.find(real_call, at + 1))
        if (image[at - 1] == '\0') image.replace(at, own_call.size(), own_call); // in the symbol names, not in a text
    const std::string path = testing::TempDir() + "ats-of-odd-events.so";
    std::ofstream(path, std::ios::binary) << image;
    return path;
}

TEST(odd_events, are_told_and_change_nothing)
{
    ats_world w;
    ats_host& host = w.add({.ports = {2}});
    const std::string image = changed_image();
    ASSERT_TRUE(host.try_load(image));
    std::filesystem::remove(image);
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

} // namespace
