// The order of tasks in a simulation. If several tasks can continue, a simulation with a schedule asks it to choose
// one. There are three schedules. random_schedule draws each choice from a seed. priority_schedule gives the tasks
// random priorities. systematic_schedule tries all orders up to a bound, one order in each run.
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
    stop,         // the running task has stopped; the candidates are the ready tasks
    switch_point, // the running task could continue; it is candidate 0, and the ready tasks follow
};

// The tasks that could continue at a choice. At a switch point, the running task is the first one. Then come the tasks
// that have become ready, and then the tasks that were preempted at a switch point. In each group, the tasks are in the
// order in which they joined the group. One rule changes this order: if a schedule chooses a later task of a group, the
// first task of the group moves to the place of the chosen task. The object is valid during the choice only.
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

    // Returns the index of the candidate that continues. The function must not call the simulation.
    virtual size_t choose(const candidates& tasks, choice_point point) = 0;
};

// At a switch point, the running task is preempted with a probability of 1/3. After a preemption or a stop, each ready
// task has the same chance to continue.
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
    int depth = 3;                // 1 or more; a round has `depth` - 1 change points
    uint64_t round_choices = 256; // number of choices in a round, 1 or more
};

// Gives each task a random priority; the task with the highest priority always continues. The method is PCT (Burckhardt
// et al., "A randomized scheduler with probabilistic guarantees of finding bugs", ASPLOS 2010).
//
// A run is cut into rounds of `round_choices` choices. A round has `depth` - 1 change points, each at a random choice.
// A change point lowers the priority of the task with the highest priority: the change point with index i sets it to i,
// which is below all random priorities. The indices have no order in time, so the lowered tasks are in a random order
// among each other. A lowered task waits for a long time while many others run. The random schedule almost never lets
// one task wait for so long.
//
// The bound: assume that a fault shows if d events happen in a certain order, all within one round. The round has k
// choices among at most n tasks. If `depth` is d or more, this order occurs with at least this probability:
//
//     1 / (n * k^(d-1))
//
// Each round draws all priorities again, for two reasons. First, the bound is then valid for every part of a long run.
// Second, a task of high priority may poll until a task of low priority has run. The next round ends such a wait.
class priority_schedule final : public schedule
{
  public:
    explicit priority_schedule(const priority_options& options) : options_(options), engine_(options.seed) {}
    size_t choose(const candidates& tasks, choice_point point) override;

    // The number of change points after which another task continued.
    uint64_t overtakings() const { return overtakings_; }

  private:
    void begin_round();
    uint64_t priority_of(uint64_t task_number) const;
    size_t highest_of(const candidates& tasks) const;

    const priority_options options_;
    std::mt19937_64 engine_;
    uint64_t position_ = 0; // number of choices made in this round
    uint64_t round_key_ = 0;
    std::vector<uint64_t> change_positions_;          // the change points of this round, by index
    std::map<uint64_t, uint64_t> lowered_priorities_; // by the number of the task
    uint64_t overtakings_ = 0;
};

// Goes through all orders with at most a given number of deviations from the plain order. In the plain order, a task
// runs until it stops, and then the first ready task continues: every choice is candidate 0. Any other choice is a
// deviation. A preempted task waits until no other task can run. Therefore one preemption is enough to let a whole
// chain of other tasks run first. The scenario runs once for each order, each time in a new simulation with this
// schedule:
//
//     systematic_schedule orders(2);
//     do run_scenario(orders); while (orders.next());
//
// The scenario must do the same each time. It is a hard error if a run has another number of candidates at a choice
// than the previous run, or ends before its planned choices, because the schedule would then count an order that has
// not been tried.
class systematic_schedule final : public schedule
{
  public:
    explicit systematic_schedule(int max_deviations) : max_deviations_(max_deviations) {}

    // The schedule deviates from the plain order only while exploring is enabled. At the start of each run, exploring
    // is disabled. A scenario enables it after its set-up, and disables it before its clean-up.
    void explore(bool is_enabled) { is_exploring_ = is_enabled; }

    // Selects the order of the next run. Returns false if all orders have been tried.
    bool next();

    uint64_t orders_tried() const { return tried_orders_; }

    // The deviations of the present order. For example, "17:1 23:2" means candidate 1 at choice 17 and candidate 2 at
    // choice 23.
    std::string describe() const;

    size_t choose(const candidates& tasks, choice_point point) override;

  private:
    struct decision {
        size_t choice;  // index of the candidate
        size_t choices; // number of candidates to try: all, or 1 if the order may not deviate any more
        size_t tasks;   // number of candidates
    };

    const int max_deviations_;
    bool is_exploring_ = false;
    std::vector<decision> decisions_; // this run has made the first `position_` of them, and must make the rest
    size_t position_ = 0;             // number of choices made in this run while exploring
    int deviations_ = 0;              // number of deviations in this run
    uint64_t tried_orders_ = 1;
};

} // namespace exec
