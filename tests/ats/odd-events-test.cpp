// Events that no fabric here tells of: other kinds, several at once, ports and HCAs that are not there. For these the
// test stands between ats and the verbs layer: it loads an image in which the name of one kernel call is replaced by
// that of a call of its own, keeps the callback that ats subscribes, and passes the subscription on.
#include <fstream>
#include <iterator>
#include <sys/mman.h>
#include <unistd.h>

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

// A copy of the module in memory with the name replaced; it lives as long as this.
class changed_image
{
  public:
    changed_image() : descriptor_(memfd_create("changed", MFD_CLOEXEC))
    {
        std::ifstream file(ATS_MODULE_DIR "/ats.so", std::ios::binary);
        std::string image{std::istreambuf_iterator<char>(file), {}};
        for (size_t at = image.find(real_call); at != std::string::npos; at = image.find(real_call, at + 1))
            if (image[at - 1] == '\0')
                image.replace(at, own_call.size(), own_call); // in the symbol names, not in a text
        EXPECT_EQ(write(descriptor_, image.data(), image.size()), static_cast<ssize_t>(image.size()));
    }
    ~changed_image() { close(descriptor_); }
    changed_image(const changed_image&) = delete;
    changed_image& operator=(const changed_image&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

  private:
    int descriptor_;
};

TEST(odd_events, are_told_and_change_nothing)
{
    ats_world w;
    ats_host& host = w.add({.ports = {2}});
    const changed_image image;
    ASSERT_TRUE(host.try_load(image.path()));
    host.link_up(1);
    host.link_up(2);
    w.requests();
    host.trace(trace_debug);

    const std::string dispatch = "DEBUG sa/ats_async_event_cb: ";
    const auto other = [&](const char* type, int port) {
        return dispatch + "Received async event <type: " + type + "> <port:" + std::to_string(port) + ">";
    };
    const auto no_port = [](const char* handler, int port) {
        return std::string("ERROR sa/") + handler + ": port " + std::to_string(port) + " is not used";
    };
    const auto received = [&](const std::string& what) { return dispatch + "Received " + what; };
    const char* refresh = "ats_sa_get_port_attr_and_sgid";
    const struct {
        uint32_t type;
        uint8_t port;
        uint64_t number;
        std::vector<std::string> lines;
    } table[] = {
        {0x30000, 1, 0, {other("30000", 1)}}, // link up and link down
        {0, 2, 0, {other("0", 2)}},
        {0x800, 1, 0, {other("800", 1)}},
        {0x50000, 9, 0, {other("50000", 9)}},
        {0x10000, 0, 0, {received("link_up <port:0>"), no_port("handle_link_up", 0)}},
        {0x10000, 3, 0, {received("link_up <port:3>"), no_port("handle_link_up", 3)}},
        {0x10000, 255, 0, {received("link_up <port:255>"), no_port("handle_link_up", 255)}},
        {0x10000, 1, 0, {received("link_up <port:1>")}}, // the active port
        {0x20000, 0, 0, {received("link_down <port:0>"), no_port("handle_link_down", 0)}},
        {0x20000, 3, 0, {received("link_down <port:3>"), no_port("handle_link_down", 3)}},
        {0x40000, 0, 5, {received("sm_lid_change <port:0>, <new sm lid:5>"), no_port(refresh, 0)}},
        {0x40000,
         3,
         0xA0B0C0D0E0F01122,
         {received("sm_lid_change <port:3>, <new sm lid:a0b0c0d0e0f01122>"), no_port(refresh, 3)}},
    };
    for (const auto& [type, port, number, lines] : table) {
        SCOPED_TRACE(testing::Message() << std::hex << type << " of port " << +port);
        host.log();
        kq_event_record_st event{};
        event.event_type = static_cast<kq_async_record_t>(type);
        event.hca_app_h = noted_hca;
        event.port_num = port;
        event.type.data = number;
        host.run([&] { noted_callback(event); });
        std::vector<std::string> expected = {
            "DEBUG module/ats_find_context: looking for hca 0x1", "DEBUG module/ats_find_context: found hca=0x1  idx=0",
            dispatch + "ats_async_event_cb is going to take a sem", dispatch + "ats_async_event_cb has taken a sem"};
        expected.insert(expected.end(), lines.begin(), lines.end());
        expected.push_back(dispatch + "ats_async_event_cb release the sem");
        EXPECT_EQ(host.log(), expected);
    }

    kq_event_record_st of_nobody{};
    of_nobody.event_type = kq_async_r_port_link_down;
    of_nobody.hca_app_h = reinterpret_cast<kq_hca_h_t>(0x77);
    of_nobody.port_num = 1;
    host.run([&] { noted_callback(of_nobody); });
    EXPECT_THAT(host.log(), ElementsAre("DEBUG module/ats_find_context: looking for hca 0x77",
                                        "ERROR module/ats_find_context: failed - hca 0x77",
                                        "ERROR sa/ats_async_event_cb: couldn't find ats conext"));
    EXPECT_THAT(w.requests(), IsEmpty());
    EXPECT_THAT(w.records(), ElementsAre("node1.1 10.0.0.1 node1"));
}

} // namespace
