// The order of a simulation, wherever it is not fixed: the simulation asks a schedule which of several tasks goes on.
// One schedule draws from a seed; another goes through the orders one by one, a run each, so that a small scenario
// can be tried in every order there is up to a bound.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace exec
{

enum class choice_point {
    stop,         // the task that ran has stopped: one of those that are ready goes on; 0 is ready the longest, and
                  // those that were preempted come last
    switch_point, // 0 is the running task, which could go on; the others are as above
};

class schedule
{
  public:
    virtual ~schedule() = default;

    // Which of `count` tasks, 2 or more, goes on. Called inside the simulation: must not call back into it.
    virtual size_t choose(size_t count, choice_point where) = 0;
};

// At one switch point in three another task goes on, and at every stop any task does.
class random_schedule final : public schedule
{
  public:
    explicit random_schedule(uint64_t seed) : dice_(seed) {}
    size_t choose(size_t count, choice_point where) override;

  private:
    std::mt19937_64 dice_;
};

// Every order that deviates at most so many times from "who runs goes on, and then first come, first served". A task
// that is preempted waits until nobody else can run, so that one deviation lets a whole chain of others overtake it. A
// scenario runs again and again, each time in a new simulation with this schedule, until next() finds no order that was
// not tried:
//
//     systematic_schedule orders(2);
//     do run_scenario(orders); while (orders.next());
//
// The scenario must do the same each time. A run whose choices differ from those recorded is a hard error: it would
// count an order that never happened.
class systematic_schedule final : public schedule
{
  public:
    explicit systematic_schedule(int most_deviations) : most_deviations_(most_deviations) {}

    // Deviations are tried while this is on only, so that a scenario can be set up and ended in one order.
    void explore(bool on) { exploring_ = on; }

    // Goes on to the next order, with exploring off. False: all have been tried.
    bool next();

    uint64_t orders_tried() const { return orders_tried_; }

    // Where the present order deviates: "17:1 23:2" takes the second of choice 17 and the third of choice 23.
    std::string describe() const;

    size_t choose(size_t count, choice_point where) override;

  private:
    struct decision {
        size_t taken;
        size_t options; // how many of the ready tasks are tried: all, or the first when no deviation is left
        size_t ready;
    };

    const int most_deviations_;
    bool exploring_ = false;
    std::vector<decision> decisions_; // of this run; those from `position_` on were made in the run before
    size_t position_ = 0;
    int deviations_ = 0; // before `position_`
    uint64_t orders_tried_ = 1;
};

} // namespace exec
