#include "host/exec/schedule.h"

#include "host/exec/task.h"

namespace exec
{

size_t random_schedule::choose(size_t count, choice_point point)
{
    constexpr uint64_t one_switch_in = 3;
    if (point == choice_point::stop) return engine_() % count;
    return engine_() % one_switch_in == 0 ? 1 + engine_() % (count - 1) : 0;
}

size_t systematic_schedule::choose(size_t count, choice_point)
{
    if (!is_exploring_) return 0;
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
    ++orders_tried_;
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
