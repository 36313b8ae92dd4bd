// A port of the umad fabric. Two tasks receive from the port: its own task, and a task that polls. Fakes replace
// libibumad and libibverbs. The fake device answers every request at once, except that its SA can be silent.
#include <deque>
#include <set>
#include <sys/eventfd.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <infiniband/verbs.h>

#include "host/fabric/umad/real-hca.h"
#include "tests/fabric/requests.h"

namespace
{

struct fake_device {
    struct arrival {
        int agent;
        fabric::mad_bytes mad;
    };
    std::mutex mutex; // guards arrivals
    std::deque<arrival> arrivals;
    std::atomic<bool> is_silent{false};            // the SA does not answer; the port itself still does
    std::atomic<int> self_questions{0};            // requests for the attributes of the port
    std::atomic<uint8_t> state{1}, lid{0};         // the port's PortState, as in PortInfo, and its LID
    const int readable = eventfd(0, EFD_NONBLOCK); // readable while there are arrivals
} wire;

constexpr int sa_agent = 0, self_agent = 1;
constexpr uint8_t port_info = 0x15;

// A fake of libibverbs. It has one HCA, for which a test reports events.
struct fake_verbs {
    std::mutex mutex; // guards events
    std::deque<ibv_async_event> events;
    std::atomic<bool> is_known{false}; // libibverbs knows the HCA
    std::atomic<int> unacknowledged{0};
    ibv_device device{};
    ibv_context context{};

    fake_verbs() { context.async_fd = eventfd(0, EFD_NONBLOCK | EFD_SEMAPHORE); }

    void report(ibv_event_type type, int port = 1)
    {
        ibv_async_event event{};
        event.event_type = type;
        event.element.port_num = port;
        const std::lock_guard lock(mutex);
        events.push_back(event);
        eventfd_write(context.async_fd, 1);
    }
} verbs;

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
    if (agent == self_agent) ++wire.self_questions;
    if (answer.mad[17] == port_info) {
        answer.mad[64 + 17] = wire.lid;
        answer.mad[64 + 32] = wire.state;
    }
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
    eventfd_t value;
    if (wire.arrivals.empty()) eventfd_read(wire.readable, &value);
    memset(umad, 0, umad_size());
    memcpy(umad_get_mad(umad), next.mad.data(), next.mad.size());
    *length = MAD_SIZE;
    return next.agent;
}

ibv_device** ibv_get_device_list(int* count)
{
    *count = verbs.is_known;
    return new ibv_device* [1] { &verbs.device };
}
void ibv_free_device_list(ibv_device** list)
{
    delete[] list;
}
const char* ibv_get_device_name(ibv_device*)
{
    return "fake";
}
ibv_context* ibv_open_device(ibv_device*)
{
    return &verbs.context;
}
int ibv_close_device(ibv_context*)
{
    return 0;
}
int ibv_get_async_event(ibv_context* context, ibv_async_event* event)
{
    const std::lock_guard lock(verbs.mutex);
    eventfd_t value;
    if (eventfd_read(context->async_fd, &value) != 0) return -1;
    *event = verbs.events.front();
    verbs.events.pop_front();
    ++verbs.unacknowledged;
    return 0;
}
void ibv_ack_async_event(ibv_async_event*)
{
    --verbs.unacknowledged;
}

namespace
{

class umad_port : public testing::Test
{
  protected:
    umad_port()
    {
        wire.is_silent = false;
        EXPECT_TRUE(port->open());
        port->start();
    }
    ~umad_port() override
    {
        is_stopping = true;
        if (poller) exec->join(*poller);
    }

    // Starts a task that polls the port. After a poll without an answer, the task sleeps for a tick; if `is_keen` is
    // set, it polls again at once. After an answer, the task sleeps while `must_sleep` is set.
    void start_polling()
    {
        poller = &exec->start(nullptr, "poller", [this] {
            while (!is_stopping) {
                if (port->poll()) {
                    ++answered_polls;
                    while (must_sleep && !is_stopping) {
                        is_asleep = true;
                        exec->park(exec->now() + 1, "nothing", "");
                    }
                    is_asleep = false;
                } else if (!is_keen) {
                    exec->park(exec->now() + 1, "answers", "");
                }
            }
        });
    }

    // Sends a request to the SA.
    void ask()
    {
        const sa_mad_v2_t mad = test::request(MAD_METHOD_GET, test::mask_gid_lookup, {}, ++requests);
        EXPECT_TRUE(port->send({.lid = 1}, test::bytes_of(mad)));
    }

    // Waits up to 30 seconds until `condition` returns true. Returns the last value of `condition`.
    template <class condition_t>
    [[nodiscard]] bool comes_true(const condition_t& condition) const
    {
        const uint64_t deadline = exec->now() + 30'000;
        while (!condition() && exec->now() < deadline) std::this_thread::yield();
        return condition();
    }

    const std::unique_ptr<exec::executor> exec = exec::make_threaded_executor();
    std::atomic<bool> is_stopping{false}, is_keen{false}, must_sleep{false}, is_asleep{false};
    std::atomic<bool> is_call_promised{false}; // the last may_complete() has announced another call
    std::atomic<uint64_t> answered_polls{0}, answers{0};
    uint64_t requests = 0;
    std::set<uint64_t> transactions; // of the answers
    umad::fabric_context context{*exec, {.watch_interval_ticks = 10}};
    umad::registered_p_keys p_keys{umad::delete_p_key::off};
    std::unique_ptr<umad::port> port = std::make_unique<umad::port>(
        context, p_keys, "fake", 1,
        umad::port_events{.mad_arrived =
                              [this](const fabric::address&, const fabric::mad_bytes& mad) {
                                  transactions.insert(from_wire(std::bit_cast<sa_mad_v2_t>(mad).hdr.transact_id));
                                  ++answers;
                              },
                          .may_complete = [this](bool again) { is_call_promised = again; },
                          .port_changed = [](fabric::port_change, uint16_t) {}});
    exec::task* poller = nullptr;
};

TEST_F(umad_port, reports_every_answer_once_whichever_task_receives_it_and_watches_its_state_meanwhile)
{
    start_polling();
    const int self_questions = wire.self_questions;
    while (requests < 20'000 || wire.self_questions < self_questions + 20) {
        ask();
        if (requests % 16 != 0) continue;
        ASSERT_TRUE(comes_true([&] { return answers == requests; }));
        ASSERT_LT(requests, 5'000'000u) << "while a task polls, the port's own task never reads the port's attributes";
    }
    EXPECT_GT(answered_polls, 0u);
    EXPECT_TRUE(comes_true([&] { return answers == requests && !is_call_promised; }));
    EXPECT_EQ(transactions.size(), requests);
}

TEST_F(umad_port, receives_in_its_own_task_again_when_the_polling_task_sleeps)
{
    start_polling();
    for (int round = 0; round < 10; ++round) {
        must_sleep = true;
        while (!is_asleep) {
            ask();
            ASSERT_TRUE(comes_true([&] { return answers == requests; }));
        }
        ask();
        ASSERT_TRUE(comes_true([&] { return answers == requests; })) << "nobody receives";
        must_sleep = false;
        ASSERT_TRUE(comes_true([&] { return !is_asleep; }));
    }
}

// The port calls may_complete() and announces another call of it. The port must make this call, even if no answer
// arrives.
TEST_F(umad_port, makes_the_announced_call_even_if_the_sa_becomes_silent)
{
    start_polling();
    is_keen = true;
    while (answered_polls == 0) {
        ask();
        ASSERT_TRUE(comes_true([&] { return answers == requests; }));
    }
    wire.is_silent = true;
    EXPECT_TRUE(comes_true([&] {
        ask();
        return !is_call_promised;
    }));
}

struct change_list final : fabric::listener {
    void mad_arrived(int, const fabric::address&, const fabric::mad_bytes&) override {}
    void port_changed(int, fabric::port_change change, uint16_t) override
    {
        const std::lock_guard lock(mutex);
        changes.push_back(change);
    }
    // Waits up to 30 seconds until `count` changes were reported. Returns all changes, and forgets them.
    std::vector<fabric::port_change> take(size_t count)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        std::unique_lock lock(mutex);
        while (changes.size() < count && std::chrono::steady_clock::now() < deadline) {
            lock.unlock();
            std::this_thread::yield();
            lock.lock();
        }
        return std::exchange(changes, {});
    }
    std::mutex mutex; // guards changes
    std::vector<fabric::port_change> changes;
};

// Wakes a task, as the service's watchdog does. Returns true if the task then begins a new round of its loop within 30
// seconds.
bool begins_a_round(const fabric::fabric_task& task)
{
    const uint64_t rounds = task.rounds();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    task.wake();
    while (task.rounds() == rounds && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    return task.rounds() > rounds;
}

// The interval between two reads of the port is an hour, so only events can show a change.
TEST(hca_with_verbs, reports_an_event_at_once)
{
    using enum fabric::port_change;
    const auto exec = exec::make_threaded_executor();
    umad::fabric_context context{*exec, {.watch_interval_ticks = 3'600'000}};
    wire.state = 1;
    verbs.is_known = true;
    umad::real_hca hca(context, {"fake", {{.number = 1, .link_layer = "InfiniBand", .device = "umad0"}}});
    ASSERT_TRUE(hca.open());
    change_list listener;
    hca.listen(&listener);
    const struct {
        ibv_event_type event;
        uint8_t state, lid;
        std::vector<fabric::port_change> changes;
    } steps[] = {
        {IBV_EVENT_PORT_ACTIVE, 4, 7, {link_up}}, {IBV_EVENT_CLIENT_REREGISTER, 4, 7, {reregister}},
        {IBV_EVENT_QP_FATAL, 4, 8, {}},           {IBV_EVENT_LID_CHANGE, 4, 8, {reregister}},
        {IBV_EVENT_PORT_ERR, 1, 8, {link_down}},  {IBV_EVENT_CLIENT_REREGISTER, 1, 8, {}},
        {IBV_EVENT_PORT_ACTIVE, 4, 8, {link_up}}, {IBV_EVENT_DEVICE_FATAL, 1, 8, {link_down}},
    };
    const fabric::fabric_task events = hca.tasks().at(1);
    EXPECT_EQ(events.name, "fake events");
    for (const auto& step : steps) {
        SCOPED_TRACE(ibv_event_type_str(step.event));
        wire.state = step.state;
        wire.lid = step.lid;
        verbs.report(step.event);
        EXPECT_EQ(listener.take(step.changes.size()), step.changes);
        EXPECT_TRUE(begins_a_round(events)) << "a watchdog would end the service";
    }
    EXPECT_EQ(verbs.unacknowledged, 0);
    hca.listen(nullptr);
    verbs.is_known = false;
}

} // namespace
