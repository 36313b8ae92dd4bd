// The registry of a machine: keys, values and subscriptions.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/stack/logger.h"
#include "host/stack/registry.h"
#include "kernel/errno.h"
#include "logger.h"
#include "tests/kernel/one-machine.h"

using testing::ElementsAre;

namespace
{

struct registry : testing::Test, one_machine {
    std::vector<std::string> texts(const std::string& path = "") const
    {
        std::vector<std::string> texts;
        for (const auto& [key, name, value] : keys.list(path))
            texts.push_back(key + " " + name + "=" + std::to_string(value));
        return texts;
    }

    stack::registry& keys = host.get<stack::registry>();
};

TEST_F(registry, ignores_superfluous_slashes_and_lists_and_removes_subtrees)
{
    keys.remove("dorvex");
    EXPECT_THAT(texts(), ElementsAre());
    keys.set("/a//b/", "x", 1);
    keys.set("a/b", "x", 2); // replaces the 1: both paths name the same key
    keys.set("a/b/c", "y", 3);
    keys.set("a", "z", 4);
    keys.set("ab", "z", 5); // not below a
    keys.set("//", "top", 6);
    EXPECT_THAT(texts(), ElementsAre(" top=6", "a z=4", "a/b x=2", "a/b/c y=3", "ab z=5"));
    EXPECT_THAT(texts("/a/"), ElementsAre("a z=4", "a/b x=2", "a/b/c y=3"));
    intptr_t value = 7;
    EXPECT_FALSE(keys.get("a/b", "none", &value));
    EXPECT_FALSE(keys.get("a/none", "x", &value));
    EXPECT_EQ(value, 7);
    EXPECT_TRUE(keys.get("a//b", "x", &value));
    EXPECT_EQ(value, 2);
    EXPECT_FALSE(keys.remove("/")) << "the root stays";
    EXPECT_FALSE(keys.remove("a/none"));
    EXPECT_TRUE(keys.remove("/a/b"));
    EXPECT_THAT(texts(), ElementsAre(" top=6", "a z=4", "ab z=5"));
}

TEST_F(registry, tells_the_subscribers_of_a_key_until_they_leave_or_the_key_is_removed)
{
    std::vector<std::string> notes;
    const rep_change_fn_t note = [](const char* name, intptr_t value, void* notes) {
        static_cast<std::vector<std::string>*>(notes)->push_back(name + std::to_string(value));
    };
    keys.set("a/b", "x", 1);
    rep_key_t key = 0, below = 0;
    rep_notifier_t first = 0, second = 0;
    run([&] {
        ASSERT_EQ(rep_open_key(rep_get_root(), "a", REP_OPEN_EXISTING, &key), 0);
        ASSERT_EQ(rep_open_key(key, "b/", REP_OPEN_EXISTING, &below), 0);
        EXPECT_NE(key, below);
        ASSERT_EQ(rep_notify_key_change(below, REP_NOTIFY_THIS_KEY, REP_NOTIFY_ON_VALUE, note, &notes, &first), 0);
        ASSERT_EQ(rep_notify_key_change(below, REP_NOTIFY_THIS_KEY, REP_NOTIFY_ON_VALUE, note, &notes, &second), 0);
        rep_close_key(key);
    });
    for (const char* path : {"a", "a/b", "a/b/c"}) keys.set(path, "x", 2);
    EXPECT_THAT(notes, ElementsAre("x2", "x2"));
    run([&] { rep_notify_del(first); });
    keys.set("a/b", "y", 3);
    EXPECT_THAT(notes, ElementsAre("x2", "x2", "y3"));

    EXPECT_TRUE(keys.remove("a"));
    keys.set("a/b", "x", 4); // makes a new key with the path of the removed one
    EXPECT_EQ(notes.size(), 3u);
    run([&] {
        intptr_t value = 0;
        int length = sizeof value;
        EXPECT_EQ(rep_get_value(below, "x", 0, &value, &length), -EK_INVAL) << "a stale key";
        EXPECT_EQ(rep_notify_key_change(below, REP_NOTIFY_THIS_KEY, REP_NOTIFY_ON_VALUE, note, &notes, &first),
                  -EK_INVAL);
        EXPECT_EQ(rep_open_key(below, "", REP_OPEN_EXISTING, &key), -EK_INVAL);
        rep_notify_del(second);
    });
}

TEST_F(registry, sets_the_level_of_the_logger)
{
    EXPECT_EQ(host.modules.logger_level(), 5);
    EXPECT_THAT(texts("dorvex/logger"), ElementsAre(testing::HasSubstr("=5")));
    host.get<stack::logger>().set_level(3);
    EXPECT_EQ(host.modules.logger_level(), 3);
    keys.set(stack::logger::registry_key, "other", 7);
    EXPECT_EQ(host.modules.logger_level(), 3);
    std::atomic<int32_t> level = 0;
    trace_lvl_change_cb("other", 4, &level);
    EXPECT_EQ(level, 0);
    trace_lvl_change_cb("debug-level", 4, &level);
    EXPECT_EQ(level, 4);
    const auto sleep_in_callback = [&] {
        rep_key_t key;
        rep_notifier_t notifier;
        ASSERT_EQ(rep_open_key(rep_get_root(), "dorvex", REP_OPEN_EXISTING, &key), 0);
        rep_notify_key_change(
            key, REP_NOTIFY_THIS_KEY, REP_NOTIFY_ON_VALUE,
            [](const char*, intptr_t, void*) { schedule_timeout_uninterruptible(1); }, nullptr, &notifier);
        keys.set("dorvex", "x", 1);
    };
    EXPECT_DEATH(run(sleep_in_callback), "is called in a registry notification");
}

} // namespace
