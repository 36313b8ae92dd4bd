#include "host/exec/schedule.h"

#include "host/exec/task.h"

namespace exec
{

size_t random_schedule::choose(size_t count, choice_point where)
{
    constexpr uint64_t one_switch_in = 3;
    if (where == choice_point::stop) return dice_() % count;
    return dice_() % one_switch_in == 0 ? 1 + dice_() % (count - 1) : 0;
}

size_t systematic_schedule::choose(size_t count, choice_point)
{
    if (!exploring_) return 0;
    if (position_ == decisions_.size()) decisions_.push_back({0, deviations_ < most_deviations_ ? count : 1, count});
    const decision& made = decisions_[position_];
    if (made.ready != count)
        panic("the scenario is not the same in each run: choice %zu was among %zu tasks and is now among %zu",
              position_, made.ready, count);
    ++position_;
    if (made.taken > 0) ++deviations_;
    return made.taken;
}

bool systematic_schedule::next()
{
    if (position_ < decisions_.size())
        panic("the scenario is not the same in each run: it made %zu choices, and now %zu", decisions_.size(),
              position_);
    exploring_ = false;
    position_ = 0;
    deviations_ = 0;
    while (!decisions_.empty() && decisions_.back().taken + 1 >= decisions_.back().options) decisions_.pop_back();
    if (decisions_.empty()) return false;
    ++decisions_.back().taken;
    ++orders_tried_;
    return true;
}

std::string systematic_schedule::describe() const
{
    std::string text;
    for (size_t i = 0; i < decisions_.size(); ++i)
        if (const size_t taken = decisions_[i].taken)
            text += (text.empty() ? "" : " ") + std::to_string(i) + ":" + std::to_string(taken);
    return text.empty() ? "no deviation" : text;
}

} // namespace exec
