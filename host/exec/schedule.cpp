#include "host/exec/schedule.h"

#include "host/exec/task.h"

namespace exec
{

namespace
{

// Mixes the bits of a number (the output function of SplitMix64).
uint64_t mix(uint64_t bits)
{
    bits = (bits ^ bits >> 30) * 0xBF58476D1CE4E5B9;
    bits = (bits ^ bits >> 27) * 0x94D049BB133111EB;
    return bits ^ bits >> 31;
}

} // namespace

size_t random_schedule::choose(const candidates& tasks, choice_point point)
{
    const size_t count = tasks.count();
    constexpr uint64_t one_switch_in = 3;
    if (point == choice_point::stop) return engine_() % count;
    return engine_() % one_switch_in == 0 ? 1 + engine_() % (count - 1) : 0;
}

void priority_schedule::begin_round()
{
    position_ = 0;
    round_key_ = engine_();
    lowered_priorities_.clear();
    change_positions_.clear();
    for (int i = 1; i < options_.depth; ++i) change_positions_.push_back(engine_() % options_.round_choices);
}

// Returns the priority of a task in this round. A lowered priority is below `depth`. All other priorities are random
// and have the highest bit set.
uint64_t priority_schedule::priority_of(uint64_t task_number) const
{
    constexpr uint64_t above_all_changed = uint64_t{1} << 63;
    const auto entry = lowered_priorities_.find(task_number);
    return entry == lowered_priorities_.end() ? above_all_changed | mix(round_key_ + task_number) : entry->second;
}

size_t priority_schedule::highest_of(const candidates& tasks) const
{
    size_t highest = 0;
    uint64_t highest_priority = priority_of(tasks.task_number(0));
    for (size_t i = 1; i < tasks.count(); ++i) {
        const uint64_t priority = priority_of(tasks.task_number(i));
        if (priority <= highest_priority) continue;
        highest = i;
        highest_priority = priority;
    }
    return highest;
}

size_t priority_schedule::choose(const candidates& tasks, choice_point)
{
    if (position_ == 0) begin_round();
    size_t highest = highest_of(tasks);
    for (size_t i = 0; i < change_positions_.size(); ++i) {
        if (change_positions_[i] != position_) continue;
        lowered_priorities_[tasks.task_number(highest)] = i;
        const size_t next = highest_of(tasks);
        overtakings_ += next != highest;
        highest = next;
    }
    position_ = (position_ + 1) % options_.round_choices;
    return highest;
}

size_t systematic_schedule::choose(const candidates& tasks, choice_point)
{
    if (!is_exploring_) return 0;
    const size_t count = tasks.count();
    if (position_ == decisions_.size()) decisions_.push_back({0, deviations_ < max_deviations_ ? count : 1, count});
    const decision& decision = decisions_[position_];
    if (decision.tasks != count)
        panic("the scenario is not the same in each run: choice %zu was among %zu tasks and is now among %zu",
              position_, decision.tasks, count);
    ++position_;
    if (decision.choice > 0) ++deviations_;
    return decision.choice;
}

bool systematic_schedule::next()
{
    if (position_ < decisions_.size())
        panic("the scenario is not the same in each run: it made %zu choices, and now %zu", decisions_.size(),
              position_);
    is_exploring_ = false;
    position_ = 0;
    deviations_ = 0;
    while (!decisions_.empty() && decisions_.back().choice + 1 >= decisions_.back().choices) decisions_.pop_back();
    if (decisions_.empty()) return false;
    ++decisions_.back().choice;
    ++tried_orders_;
    return true;
}

std::string systematic_schedule::describe() const
{
    std::string text;
    for (size_t i = 0; i < decisions_.size(); ++i) {
        if (decisions_[i].choice == 0) continue;
        text += (text.empty() ? "" : " ") + std::to_string(i) + ":" + std::to_string(decisions_[i].choice);
    }
    return text.empty() ? "no deviation" : text;
}

} // namespace exec
