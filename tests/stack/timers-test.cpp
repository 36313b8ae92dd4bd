// The timing service, through the calls that modules make.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/stack/timers.h"
#include "tests/kernel/one-machine.h"

using testing::ElementsAre;

namespace
{

// A timer with a story: writes down when it ran, as "name@tick", and does what it is told.
struct story {
    story(std::vector<std::string>& log, std::string its_name, bool never_sleeps, std::function<void(timing_t&)> does)
        : lines(log), name(std::move(its_name)), then(std::move(does)), atomic(never_sleeps)
    {
    }
    story(const story&) = delete;
    story& operator=(const story&) = delete;

    void arm(uint64_t tick)
    {
        if (!prepared) {
            init_timing(&timer);
            timer.function = [](unsigned long self) { reinterpret_cast<story*>(self)->run(); };
            timer.data = reinterpret_cast<unsigned long>(this);
            timer.atomic = atomic;
            prepared = true;
        }
        timer.expires = tick;
        add_timing(&timer);
    }
    void run()
    {
        lines.push_back(name + "@" + std::to_string(get_jiffies()));
        if (then) then(timer);
    }

    std::vector<std::string>& lines;
    std::string name;
    std::function<void(timing_t&)> then;
    bool atomic;
    bool prepared = false;
    timing_t timer;
};

class timers_test : public testing::Test
{
  protected:
    story& make(const std::string& name, bool atomic, std::function<void(timing_t&)> then = {})
    {
        stories.push_back(std::make_unique<story>(lines, name, atomic, std::move(then)));
        return *stories.back();
    }
    size_t armed() { return at.host.get<stack::timers>().armed(); }

    std::vector<std::string> lines;
    std::vector<std::unique_ptr<story>> stories;
    one_machine at{{.start_tick = 100}};
};

TEST_F(timers_test, run_at_their_tick_and_those_of_one_tick_in_order)
{
    at.run([&] {
        make("late", true).arm(130);
        make("sleeper b", false).arm(120);
        make("sleeper a", false).arm(119);
        make("atomic 1", true).arm(120);
        make("atomic 2", true).arm(120);
        make("past", false).arm(7);
        spinlock_t lock;
        spin_lock_init(&lock);
        story& under_lock = make("under lock", true);
        const unsigned long flags = spin_lock_irqsave(&lock);
        under_lock.arm(120);
        spin_unlock_irqrestore(&lock, flags);
        EXPECT_EQ(armed(), 7u);
    });
    at.sim->run_until(129);
    EXPECT_THAT(lines, ElementsAre("past@100", "sleeper a@119", "atomic 1@120", "atomic 2@120", "under lock@120",
                                   "sleeper b@120"));
    at.sim->run_until(200);
    EXPECT_EQ(lines.back(), "late@130");
    EXPECT_EQ(armed(), 0u);
}

TEST_F(timers_test, arming_again_moves_a_timer_and_a_handler_may_arm_its_own)
{
    at.run([&] {
        for (const bool atomic : {true, false}) {
            make("moved", atomic).arm(110);
            stories.back()->arm(150);
            stories.back()->arm(140);
            make("periodic", atomic, [](timing_t& self) {
                self.expires = get_jiffies() + 100;
                if (get_jiffies() < 300) add_timing(&self);
            }).arm(105);
        }
    });
    at.sim->run_until(1000);
    EXPECT_THAT(lines, ElementsAre("periodic@105", "periodic@105", "moved@140", "moved@140", "periodic@205",
                                   "periodic@205", "periodic@305", "periodic@305"));
}

TEST_F(timers_test, a_handler_that_sleeps_delays_its_like_but_no_other)
{
    kernel::machine other{*at.sim, "node2"};
    std::vector<std::string> other_lines;
    story neighbour(other_lines, "neighbour", false, {});
    at.run([&] {
        make("slow", false, [](timing_t&) { schedule_timeout_uninterruptible(50); }).arm(110);
        make("waits", false).arm(120);
        make("atomic", true).arm(120);
    });
    other.enter("test", [&] { neighbour.arm(120); });
    at.sim->run_until(200);
    EXPECT_THAT(lines, ElementsAre("slow@110", "atomic@120", "waits@160"));
    EXPECT_THAT(other_lines, ElementsAre("neighbour@120"));
}

TEST_F(timers_test, deletion_waits_for_the_handler_and_voids_its_arming)
{
    at.run([&] {
        story& slow = make("slow", false, [](timing_t& self) {
            schedule_timeout_uninterruptible(50);
            self.expires = get_jiffies();
            add_timing(&self);
        });
        slow.arm(110);
        schedule_timeout_uninterruptible(20);
        del_timing_sync(&slow.timer);
        EXPECT_EQ(get_jiffies(), 160u);
        schedule_timeout_uninterruptible(20);
        EXPECT_THAT(lines, ElementsAre("slow@110"));

        slow.then = {};
        slow.arm(200); // deleted is not dead
        schedule_timeout_uninterruptible(30);
        EXPECT_THAT(lines, ElementsAre("slow@110", "slow@200"));

        slow.arm(300);
        del_timing_sync(&slow.timer); // disarms at once
        EXPECT_EQ(get_jiffies(), 210u);
    });
    at.sim->run_until(400);
    EXPECT_EQ(lines.size(), 2u);
}

TEST(timers, a_deleted_timer_never_runs_whatever_the_interleaving)
{
    bool ran_before = false;
    bool never_ran = false;
    for (uint64_t seed = 1; seed <= 200; ++seed) {
        std::vector<std::string> lines;
        one_machine at({.seed = seed, .explore_switches = true});
        story busy(lines, "busy", seed % 2 == 0, [](timing_t& self) { add_timing(&self); });
        at.at(10, "owner", [&] {
            busy.arm(10);
            for (uint64_t i = 0; i < seed % 5; ++i) at.sim->switch_point();
            del_timing_sync(&busy.timer);
            const size_t runs = lines.size();
            (runs > 0 ? ran_before : never_ran) = true;
            schedule_timeout_uninterruptible(5);
            EXPECT_EQ(lines.size(), runs) << "with seed " << seed;
        });
        at.finish();
    }
    EXPECT_TRUE(ran_before);
    EXPECT_TRUE(never_ran);
}

TEST(timers, misuse_is_a_hard_error)
{
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    const auto run_one = [](bool atomic, const std::function<void(timing_t&)>& handler) {
        std::vector<std::string> lines;
        one_machine at;
        story it(lines, "it", atomic, handler);
        at.run([&] { it.arm(1); });
        at.sim->run_until(10);
    };
    EXPECT_DEATH(run_one(false, [](timing_t& self) { del_timing_sync(&self); }), "deletes its own timer");
    EXPECT_DEATH(run_one(true, [](timing_t&) { schedule_timeout_uninterruptible(1); }),
                 "schedule_timeout_uninterruptible may sleep, and is called in the timer context");
    EXPECT_DEATH(run_one(true,
                         [](timing_t& self) {
                             self.expires = 1000;
                             add_timing(&self);
                         }),
                 "machine node1 goes with 1 armed timers; one calls 0x[0-9a-f]+ at tick 1000");
}

} // namespace
