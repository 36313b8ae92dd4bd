// Askers, a service that comes and goes and a network that does as it likes, all at once. In a simulation a seed
// decides their order; on threads the machine does, and the sanitizers watch.
#pragma once

#include <atomic>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "tests/peers/peer-world.h"

// The dice of the calling thread: one for all tasks of a simulation, one each for threads.
inline thread_local std::mt19937_64 dice;

inline bool one_in(uint64_t n)
{
    return dice() % n == 0;
}

// One question of an asker and how it was settled.
struct question {
    ibat_stat_t status = ibat_stat_pending;
    std::atomic<int> replies = 0;
    int withdrawn = 0;
    std::atomic<bool> is_closed = false; // a withdrawal has returned: no callback may come any more

    static void called_back(ibat_stat_t status, ibat_arp_data_t* record, void* self)
    {
        auto* it = static_cast<question*>(self);
        EXPECT_FALSE(it->is_closed);
        EXPECT_NE(status, ibat_stat_pending);
        EXPECT_NE(record->mask, 0u);
        ++it->replies;
    }
};

template <class world_t>
class campaign
{
  public:
    campaign(std::unique_ptr<kernel::executor> runs_it, const std::string& parameters)
        : world(parameters, std::move(runs_it))
    {
        world.run([this] { world.detach(world.handle); }); // the world's own, which knows one task at a time
    }
    virtual ~campaign() = default;

    void run()
    {
        for (auto& each : questions_) start("asker", [this, &each] { ask_all(each); });
        start("network", [this] { network(); });
        start("service", [this] { service(); });
        for (kernel::task* each : tasks_) world.exec->join(*each);
        EXPECT_TRUE(world.unload()); // with whatever is pending at that moment
        for (const auto& questions : questions_) {
            for (const question& each : questions) {
                EXPECT_EQ(each.replies + each.withdrawn, each.status == ibat_stat_pending ? 1 : 0);
            }
        }
        EXPECT_EQ(world.host.memory.blocks(), 0u) << testing::PrintToString(world.host.memory.leaks());
    }

  protected:
    virtual ibat_stat_t ask(question& asked) = 0;
    virtual void network() = 0; // answers, duplicates, callbacks
    virtual void service() = 0; // attaches and detaches, and stays attached

    // Simulated time passes; on threads only the order of things changes.
    void pause(uint64_t most_ticks)
    {
        if (world.sim) {
            schedule_timeout_uninterruptible(dice() % most_ticks);
        } else {
            world.exec->relax();
        }
    }

    // Called by whoever is called through an attachment.
    void called_through_attachment() { EXPECT_TRUE(is_attached); }

    world_t world;
    std::atomic<bool> is_attached = false;

  private:
    void start(const char* name, std::function<void()> body)
    {
        const uint64_t number = tasks_.size();
        tasks_.push_back(&world.host.start(name, [this, number, body] {
            if (!world.sim) dice.seed(number);
            body();
        }));
    }

    void ask_all(std::vector<question>& questions)
    {
        for (question& each : questions) {
            each.status = ask(each);
            if (one_in(2)) pause(30);
            question& earlier = questions[dice() % (&each - questions.data() + 1)];
            if (!one_in(4) || earlier.is_closed) continue;
            earlier.withdrawn += world.cancel(question::called_back, &earlier);
            earlier.is_closed = true;
        }
    }

    std::vector<std::vector<question>> questions_ = make_questions();
    std::vector<kernel::task*> tasks_;

    static std::vector<std::vector<question>> make_questions()
    {
        std::vector<std::vector<question>> questions;
        for (int asker = 0; asker < 3; ++asker) questions.emplace_back(12);
        return questions;
    }
};

// Runs campaigns over many seeds in simulations, and some on threads.
template <class campaign_t>
void run_simulated_campaigns()
{
    for (uint64_t seed = 1; seed <= 300 && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        dice.seed(seed);
        campaign_t(kernel::make_simulation({.seed = seed, .explore_switches = true})).run();
    }
}

template <class campaign_t>
void run_threaded_campaigns()
{
    for (int round = 0; round < 20 && !testing::Test::HasFailure(); ++round) {
        campaign_t(kernel::make_threaded_executor()).run();
    }
}
