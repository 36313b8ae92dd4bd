// The order of tasks in a simulation. If several tasks can continue, the simulation asks a schedule to choose one.
// There are three schedules. One draws from a seed. One gives the tasks random priorities. One tries all orders up to a
// bound, one order in each run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace exec
{

enum class choice_point {
    stop,         // the running task has stopped: the choices are the ready tasks
    switch_point, // the running task could continue: it is choice 0, and the ready tasks follow
};

// The tasks that could continue at a choice. At a switch point, the running task is the first one. Then come the tasks
// that have become ready, and then the tasks that were preempted. Both groups begin with the task that has waited
// longest. The object is valid during the choice only.
class candidates
{
  public:
    virtual size_t count() const = 0; // 2 or more

    // The number of the task at this index. Tasks are numbered in the order in which they start.
    virtual uint64_t task_number(size_t index) const = 0;

  protected:
    ~candidates() = default;
};

class schedule
{
  public:
    virtual ~schedule() = default;

    // Returns the index of the candidate that continues. The simulation calls it; it must not call the simulation.
    virtual size_t choose(const candidates& tasks, choice_point point) = 0;
};

// At a switch point, another task continues with a probability of 1/3. Which of the ready tasks continues is drawn with
// equal chances, there and after a stop.
class random_schedule final : public schedule
{
  public:
    explicit random_schedule(uint64_t seed) : engine_(seed) {}
    size_t choose(const candidates& tasks, choice_point point) override;

  private:
    std::mt19937_64 engine_;
};

struct priority_options {
    uint64_t seed = 1;
    int depth = 3;                // 1 or more
    uint64_t round_choices = 256; // 1 or more
};

// Gives each task a random priority; the task with the highest priority always continues. The method is PCT (Burckhardt
// et al., "A randomized scheduler with probabilistic guarantees of finding bugs", ASPLOS 2010). A round has `depth` - 1
// change points. Each lies at a random choice. There the task that would continue gets a priority below all random
// ones: the change point with index i gives it priority i. The indices have no order in time, so lowered tasks are in a
// random order among each other. A lowered task waits for a long time while many others run. The random schedule almost
// never does that: it would have to draw the same way at many choices in turn.
//
// The bound: assume that a fault shows if d events happen in a certain order, all within one round. The round has k
// choices among at most n tasks. If `depth` is d or more, this order occurs with at least this probability:
//
//     1 / (n * k^(d-1))
//
// A run is cut into rounds of `round_choices` choices. Each round draws all priorities again, for two reasons. The
// bound must also be valid for each part of a long run. And tasks that poll for a task of low priority must not wait
// for ever.
class priority_schedule final : public schedule
{
  public:
    explicit priority_schedule(const priority_options& options) : options_(options), engine_(options.seed) {}
    size_t choose(const candidates& tasks, choice_point point) override;

    // The number of times that a change of priority has let another task continue.
    uint64_t overtakings() const { return overtakings_; }

  private:
    void begin_round();
    uint64_t priority_of(uint64_t task_number) const;
    size_t highest_of(const candidates& tasks) const;

    const priority_options options_;
    std::mt19937_64 engine_;
    uint64_t position_ = 0; // in the round
    uint64_t round_key_ = 0;
    std::vector<uint64_t> change_positions_;          // in the round, in any order
    std::map<uint64_t, uint64_t> lowered_priorities_; // the changed priorities, by the task's number
    uint64_t overtakings_ = 0;
};

// Goes through all orders with at most a given number of deviations from the plain order. In the plain order a task
// runs until it stops. Then the task that became ready first continues. A preempted task waits until no other task can
// run. A single deviation therefore lets a whole chain of tasks overtake it. The scenario runs once for
// each order, each time in a new simulation with this schedule:
//
//     systematic_schedule orders(2);
//     do run_scenario(orders); while (orders.next());
//
// The scenario must do the same each time. It is a hard error if its choices differ from those of the previous run: the
// schedule would count an order that never happened.
class systematic_schedule final : public schedule
{
  public:
    explicit systematic_schedule(int max_deviations) : max_deviations_(max_deviations) {}

    // Deviations are tried only while exploring is enabled. A scenario disables it for its set-up and clean-up, which
    // then run in the plain order. It is disabled at the start of each run.
    void explore(bool is_enabled) { is_exploring_ = is_enabled; }

    // Selects the next order. Returns false if all have been tried.
    bool next();

    uint64_t orders_tried() const { return tried_orders_; }

    // The deviations of the present order. For example, "17:1 23:2" means index 1 at choice 17 and index 2 at choice
    // 23.
    std::string describe() const;

    size_t choose(const candidates& tasks, choice_point point) override;

  private:
    struct decision {
        size_t choice;
        size_t choices; // choices to try: all, or only the first if no deviation is left
        size_t tasks;   // tasks that could continue
    };

    const int max_deviations_;
    bool is_exploring_ = false;
    std::vector<decision> decisions_; // of this run up to `position_`; the rest is from the previous run
    size_t position_ = 0;
    int deviations_ = 0; // before `position_`
    uint64_t tried_orders_ = 1;
};

} // namespace exec
