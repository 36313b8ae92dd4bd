// The order of tasks in a simulation. Where several tasks could go on, the simulation asks a schedule which one does.
// One schedule draws from a seed. Another one goes through the orders one by one, one run each, so that a small
// scenario is tried in every order up to a bound.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace exec
{

enum class choice_point {
    stop,         // the running task has stopped. The choice is among the ready tasks: first those that became ready,
                  // the oldest first, then those that were preempted
    switch_point, // the running task could go on: it is choice 0, and the ready tasks follow in that order
};

class schedule
{
  public:
    virtual ~schedule() = default;

    // Returns the index of the task that goes on, among `count` tasks, 2 or more. Called by the simulation; must not
    // call back into it.
    virtual size_t choose(size_t count, choice_point point) = 0;
};

// Switches at one switch point in three on average. All other choices have equal chances.
class random_schedule final : public schedule
{
  public:
    explicit random_schedule(uint64_t seed) : engine_(seed) {}
    size_t choose(size_t count, choice_point point) override;

  private:
    std::mt19937_64 engine_;
};

// Goes through all orders with at most so many deviations from the plain order. In the plain order the running task
// goes on, and then the tasks run in the order in which they became ready. A task that is preempted waits until no
// other task can run, so that a single deviation lets a whole chain of tasks overtake it. The scenario runs once for
// each order, each time in a new simulation with this schedule:
//
//     systematic_schedule orders(2);
//     do run_scenario(orders); while (orders.next());
//
// The scenario must do the same each time. If its choices differ from those of the run before, that is a hard error,
// since an order would be counted that never happened.
class systematic_schedule final : public schedule
{
  public:
    explicit systematic_schedule(int max_deviations) : max_deviations_(max_deviations) {}

    // Deviations are tried only while exploring is enabled; a scenario sets up and cleans up in the plain order.
    // Disabled at the start of each run.
    void explore(bool is_enabled) { is_exploring_ = is_enabled; }

    // Goes on to the next order. False if all have been tried.
    bool next();

    uint64_t orders_tried() const { return orders_tried_; }

    // The deviations of the present order: "17:1 23:2" takes index 1 at choice 17 and index 2 at choice 23.
    std::string describe() const;

    size_t choose(size_t count, choice_point point) override;

  private:
    struct decision {
        size_t choice;
        size_t choices; // to be tried: all, or only the first if no deviation is left
        size_t tasks;   // that could go on
    };

    const int max_deviations_;
    bool is_exploring_ = false;
    std::vector<decision> decisions_; // of this run, up to `position_`; the others are of the run before
    size_t position_ = 0;
    int deviations_ = 0; // before `position_`
    uint64_t orders_tried_ = 1;
};

} // namespace exec
