// The stack on real threads, mainly for the thread sanitizer. No test depends on real time.
#include <chrono>
#include <gtest/gtest.h>
#include <shared_mutex>

#include "host/kernel/module-image.h"
#include "host/stack/boot.h"
#include "host/stack/gsi-service.h"
#include "host/stack/hca-events.h"
#include "host/stack/liveness.h"
#include "host/stack/registry.h"
#include "host/stack/timers.h"
#include "kernel/time.h"
#include "repository.h"
#include "tests/stack/gsi-client.h"
#include "verbs.h"

namespace
{

constexpr auto patience = std::chrono::seconds(60);

// An HCA whose SA answers each request inside send(). Any number of threads may send at the same time.
class answering_hca final : public fabric::hca
{
  public:
    const std::string& name() const override { return name_; }
    int port_count() const override { return 2; }
    fabric::port_attributes read_port(int) override
    {
        fabric::port_attributes attributes;
        attributes.state = fabric::link_state::active;
        return attributes;
    }
    bool poll() override { return false; }
    void listen(fabric::listener* listener) override
    {
        const std::unique_lock lock(mutex_);
        listener_ = listener;
    }
    bool send(int port, const fabric::address&, const fabric::mad_bytes& mad) override
    {
        auto answer = std::bit_cast<sa_mad_v2_t>(mad);
        answer.hdr.m.r = 1;
        const std::shared_lock lock(mutex_);
        if (listener_) listener_->mad_arrived(port, {.lid = 1}, test::bytes_of(answer));
        return true;
    }
    void change(int port, fabric::port_change change)
    {
        const std::shared_lock lock(mutex_);
        if (listener_) listener_->port_changed(port, change, 1);
    }
    void complete()
    {
        const std::shared_lock lock(mutex_);
        if (listener_) listener_->may_complete(false);
    }

  private:
    const std::string name_ = "mthca0";
    std::shared_mutex mutex_;
    fabric::listener* listener_ = nullptr;
};

struct threads : testing::Test {
    threads() { host.plug(hca); }

    void await(const std::atomic<int>& count, int value) const
    {
        const auto deadline = std::chrono::steady_clock::now() + patience;
        while (count < value && std::chrono::steady_clock::now() < deadline) exec->relax();
        EXPECT_GE(count, value);
    }

    answering_hca hca;
    std::unique_ptr<exec::executor> exec = exec::make_threaded_executor();
    kernel::machine host{*exec, "node1"};
};

// Three tasks use GSI, verbs, the registry and timers of a machine at once. Meanwhile another task reads the reports of
// these services.
TEST_F(threads, share_all_services_of_a_machine)
{
    constexpr size_t rounds = 200;
    std::atomic<bool> is_done = false;
    const auto use_gsi = [&](size_t) {
        std::atomic<int> callback_count = 0;
        const auto completed = [](gsi_class_handle_t, void* count, gsi_dtgrm_t* datagram) {
            gsi_dtgrm_pool_put(datagram);
            ++*static_cast<std::atomic<int>*>(count);
        };
        gsi_dtgrm_pool_handle_t pool;
        gsi_class_handle_t handle;
        ASSERT_EQ(gsi_dtgrm_pool_create_named(4, &pool, "user"), 0);
        ASSERT_EQ(gsi_join_class(MAD_CLASS_SUBN_ADM, MAD_CLASS_VERSION_SUBN_ADM, &mthca0, 1, completed, completed,
                                 &callback_count, &handle),
                  0);
        for (const uint8_t method : {MAD_METHOD_GET, MAD_METHOD_SET}) {
            gsi_dtgrm_t* datagram = nullptr;
            ASSERT_EQ(gsi_dtgrm_pool_get(pool, &datagram), 0);
            sa_mad_v2_t mad = test::request(method, test::mask_gid_lookup, {}, 0);
            mad.hdr.attrib_id = SA_ATTR_SERVICE_RECORD;
            memcpy(datagram->mad, &mad, MAD_SIZE);
            datagram->rlid = 1;
            ASSERT_EQ(gsi_post_send_dtgrm(handle, datagram, nullptr), 0);
        }
        await(callback_count, 4);
        while (gsi_deregister_class(handle) != 0) exec->relax(); // a callback may not have returned yet
        EXPECT_EQ(gsi_dtgrm_pool_destroy(pool), 0);
    };
    const auto use_verbs = [&](size_t) {
        const kq_request_event_record_t all_events{kq_async_even_all, nullptr};
        const auto event = [](kq_event_record_st) {};
        kq_hca_h_t handle;
        ASSERT_EQ(kq_hca_open(&mthca0, 0, &handle), kq_return_ok);
        ASSERT_EQ(kq_set_sleepable_async_event_cb(handle, &all_events, event), kq_return_ok);
        hca.change(1, fabric::port_change::sm_change);
        EXPECT_EQ(kq_dell_sleepable_async_event_cb(handle, event), kq_return_ok);
        EXPECT_EQ(kq_hca_close(handle), kq_return_ok);
    };
    const auto use_registry = [&](size_t user) {
        auto& registry = host.get<stack::registry>();
        const std::string path = "users/" + std::to_string(user);
        intptr_t value = 0;
        int length = sizeof value;
        rep_key_t key;
        rep_notifier_t notifier;
        registry.set(path, "value", 1);
        EXPECT_TRUE(registry.get(path, "value", &value));
        EXPECT_FALSE(registry.list("users").empty());
        EXPECT_EQ(rep_open_key(rep_get_root(), path.c_str(), REP_OPEN_EXISTING, &key), 0);
        EXPECT_EQ(rep_get_value(key, "value", 0, &value, &length), 0);
        const auto changed = [](const char*, intptr_t, void*) {};
        EXPECT_EQ(rep_notify_key_change(key, REP_NOTIFY_THIS_KEY, REP_NOTIFY_ON_VALUE, changed, nullptr, &notifier), 0);
        rep_close_key(key);
        rep_notify_del(notifier);
        EXPECT_TRUE(registry.remove(path));
    };
    const auto use_timers = [&](size_t user) {
        std::atomic<int> handler_count = 0;
        timing_t timer;
        init_timing(&timer);
        timer.function = [](unsigned long count) { ++*reinterpret_cast<std::atomic<int>*>(count); };
        timer.data = reinterpret_cast<unsigned long>(&handler_count);
        timer.atomic = user % 2 == 0;
        timer.expires = get_jiffies();
        add_timing(&timer);
        await(handler_count, 1);
        timer.expires = get_jiffies() + 1'000'000;
        add_timing(&timer);
        del_timing_sync(&timer);
        EXPECT_EQ(handler_count, 1);
    };
    const std::function<void(size_t)> uses[] = {use_gsi, use_verbs, use_registry, use_timers};

    const auto report = [&] {
        const kernel::module_code program("test", &mthca0);
        while (!is_done) {
            auto& gsi = host.get<stack::gsi>();
            gsi.pools();
            gsi.adapters();
            gsi.registrations();
            gsi.set_records();
            host.get<stack::timers>().armed();
            host.left_by(program);
            hca.complete();
        }
    };
    std::vector<exec::task*> tasks;
    host.enter("boot", [&] { stack::boot(host); });
    for (size_t user = 0; user < 3; ++user)
        tasks.push_back(&host.start("user", [&, user] {
            for (size_t i = 0; i < rounds; ++i) uses[(i + user) % std::size(uses)](user);
        }));
    exec::task& reporter = host.start("reporter", report);
    stack::liveness liveness(host);
    for (int i = 0; i < 100; ++i) {
        liveness.ask();
        liveness.silent();
        exec->relax();
    }
    for (exec::task* each : tasks) exec->join(*each);
    is_done = true;
    exec->join(reporter);
    EXPECT_EQ(host.get<stack::gsi>().adapters().at(0).counts.delivered, 3 * rounds / 2);
    EXPECT_EQ(host.get<stack::timers>().armed(), 0u);
}

} // namespace
