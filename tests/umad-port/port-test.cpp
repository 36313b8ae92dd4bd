// A real port between its own task and one that polls. What libibumad does is done here, by a device whose SA answers
// every request at once, unless it is told to be silent.
#include <deque>
#include <set>
#include <sys/eventfd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "host/fabric/umad/port.h"
#include "tests/fabric/requests.h"

namespace
{

struct fake_device {
    struct arrival {
        int agent;
        fabric::mad_bytes mad;
    };
    std::mutex mutex; // guards the next
    std::deque<arrival> arrivals;
    std::atomic<bool> is_silent{false}; // to requests that are the SA's
    std::atomic<int> looks{0};
    const int readable = eventfd(0, EFD_NONBLOCK); // as long as there are arrivals
} wire;

constexpr int sa_agent = 0, self_agent = 1;

} // namespace

int umad_open_port(const char*, int)
{
    return 7;
}
int umad_close_port(int)
{
    return 0;
}
int umad_get_fd(int)
{
    return wire.readable;
}
int umad_register(int, int mgt_class, int, uint8_t, long*)
{
    return mgt_class == MAD_CLASS_SUBN_ADM ? sa_agent : self_agent;
}
int umad_unregister(int, int)
{
    return 0;
}

int umad_send(int, int agent, void* umad, int, int, int)
{
    fake_device::arrival answer{agent, {}};
    memcpy(answer.mad.data(), umad_get_mad(umad), answer.mad.size());
    reinterpret_cast<mad_hdr_t&>(answer.mad).m.r = 1;
    if (agent == self_agent) ++wire.looks;
    const std::lock_guard lock(wire.mutex);
    if (agent == sa_agent && wire.is_silent) return 0;
    wire.arrivals.push_back(answer);
    eventfd_write(wire.readable, 1);
    return 0;
}

int umad_recv(int, void* umad, int* length, int)
{
    const std::lock_guard lock(wire.mutex);
    if (wire.arrivals.empty()) return -EWOULDBLOCK;
    const fake_device::arrival next = wire.arrivals.front();
    wire.arrivals.pop_front();
    eventfd_t ignored;
    if (wire.arrivals.empty()) eventfd_read(wire.readable, &ignored);
    memset(umad, 0, umad_size());
    memcpy(umad_get_mad(umad), next.mad.data(), next.mad.size());
    *length = MAD_SIZE;
    return next.agent;
}

namespace
{

class umad_port : public testing::Test
{
  protected:
    umad_port()
    {
        wire.is_silent = false;
        EXPECT_EQ(port->open(), "");
        port->start();
    }
    ~umad_port() override
    {
        stopping = true;
        if (poller) exec->join(*poller);
    }

    // A task that polls. Where a poll finds nothing it sleeps for a tick, unless it is keen; with an answer it goes
    // away for as long as `naps` is set.
    void start_polling()
    {
        poller = &exec->start(nullptr, "poller", [this] {
            while (!stopping) {
                if (port->poll()) {
                    ++polled;
                    for (; naps && !stopping; is_away = true) exec->park(exec->now() + 1, "nothing", "");
                    is_away = false;
                } else if (!is_keen) {
                    exec->park(exec->now() + 1, "answers", "");
                }
            }
        });
    }

    void ask()
    {
        const sa_mad_v2_t mad = test::request(MAD_METHOD_GET, test::mask_gid_lookup, {}, ++asked);
        EXPECT_TRUE(port->send({.lid = 1}, test::bytes_of(mad)));
    }

    template <class condition_t>
    [[nodiscard]] bool comes_true(const condition_t& condition) const
    {
        const uint64_t deadline = exec->now() + 10'000;
        while (!condition() && exec->now() < deadline) std::this_thread::yield();
        return condition();
    }

    const std::unique_ptr<exec::executor> exec = exec::make_threaded_executor();
    std::atomic<bool> stopping{false}, is_keen{false}, naps{false}, is_away{false}, is_promised{false};
    std::atomic<uint64_t> polled{0}, told{0};
    uint64_t asked = 0;
    std::set<uint64_t> transactions; // the listener's
    umad::surroundings around{*exec, {.watch_interval_ticks = 10}};
    umad::own_records records{umad::delete_p_key::off};
    std::unique_ptr<umad::port> port = std::make_unique<umad::port>(
        around, records, "fake", 1,
        umad::port_events{.arrived =
                              [this](const fabric::address&, const fabric::mad_bytes& mad) {
                                  transactions.insert(from_wire(std::bit_cast<sa_mad_v2_t>(mad).hdr.transact_id));
                                  ++told;
                              },
                          .may_complete = [this](bool again) { is_promised = again; },
                          .changed = [](fabric::port_change, uint16_t) {}});
    exec::task* poller = nullptr;
};

TEST_F(umad_port, tells_every_answer_once_whoever_receives_it_and_is_watched_meanwhile)
{
    start_polling();
    const int looks = wire.looks;
    while (asked < 20'000 || wire.looks < looks + 20) {
        ask();
        if (asked % 16 != 0) continue;
        ASSERT_TRUE(comes_true([&] { return told == asked; }));
        ASSERT_LT(asked, 5'000'000u) << "polls keep the port's task from looking at the port";
    }
    EXPECT_GT(polled, 0u);
    EXPECT_TRUE(comes_true([&] { return told == asked && !is_promised; }));
    EXPECT_EQ(transactions.size(), asked);
}

TEST_F(umad_port, is_received_from_though_the_task_that_polled_has_come_to_sleep)
{
    start_polling();
    for (int round = 0; round < 10; ++round) {
        naps = true;
        while (!is_away) {
            ask();
            ASSERT_TRUE(comes_true([&] { return told == asked; }));
        }
        ask();
        ASSERT_TRUE(comes_true([&] { return told == asked; })) << "nobody receives";
        naps = false;
        ASSERT_TRUE(comes_true([&] { return !is_away; }));
    }
}

TEST_F(umad_port, ends_what_it_promised_when_the_sa_falls_silent_however_much_is_asked)
{
    start_polling();
    is_keen = true;
    while (polled == 0) {
        ask();
        ASSERT_TRUE(comes_true([&] { return told == asked; }));
    }
    wire.is_silent = true;
    EXPECT_TRUE(comes_true([&] {
        ask();
        return !is_promised;
    }));
}

} // namespace
