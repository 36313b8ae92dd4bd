// The verbs layer: handles, queries and events.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/stack/fake-hca.h"
#include "verbs.h"

using fabric::port_change;
using testing::ElementsAre;

namespace
{

constexpr kq_hca_name mthca0{"mthca0"};
constexpr kq_request_event_record_t all_events{kq_async_even_all, nullptr};

// What a subscriber was told, and when: "up 1@20".
std::vector<std::string> told;
std::function<void()> then;

void event_callback(kq_event_record_st event)
{
    std::string what = "?";
    if (event.event_type == kq_async_r_port_link_up) what = "up ";
    if (event.event_type == kq_async_r_port_link_down) what = "down ";
    if (event.event_type == kq_async_r_port_sm_change) what = "sm at " + std::to_string(event.type.data) + " ";
    told.push_back(what + std::to_string(event.port_num) + "@" + std::to_string(get_jiffies()));
    if (then) then();
}

class verbs_events : public testing::Test
{
  protected:
    verbs_events()
    {
        told.clear();
        then = {};
        at.run([&] { ASSERT_EQ(kq_hca_open(&mthca0, 0, &hca), kq_return_ok); });
    }
    ~verbs_events() override
    {
        at.run([&] {
            kq_dell_sleepable_async_event_cb(hca, event_callback);
            EXPECT_EQ(kq_hca_close(hca), kq_return_ok);
        });
    }
    void subscribe()
    {
        at.run([&] { ASSERT_EQ(kq_set_sleepable_async_event_cb(hca, &all_events, event_callback), kq_return_ok); });
        at.settle();
    }

    machine_with_fake at;
    kq_hca_h_t hca = nullptr;
};

TEST_F(verbs_events, come_in_order_after_the_links_that_were_up_already)
{
    at.hca.change(2, port_change::link_up);
    subscribe();
    at.hca.change(1, port_change::link_up);
    at.hca.change(2, port_change::link_down);
    at.hca.change(1, port_change::sm_change, 9);
    at.settle();
    EXPECT_THAT(told, ElementsAre("up 2@0", "up 1@0", "down 2@0", "sm at 9 1@0"));
}

} // namespace
