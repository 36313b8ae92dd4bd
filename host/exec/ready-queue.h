// First come, first served, in a ring that grows: a task that becomes ready costs no allocation.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

namespace exec
{

template <class task_t>
class ready_queue
{
  public:
    bool empty() const { return count_ == 0; }
    size_t size() const { return count_; }

    void push(task_t* ready)
    {
        if (count_ == ring_.size()) grow();
        ring_[slot(count_++)] = ready;
    }

    task_t* take_first()
    {
        task_t* first = ring_[slot(0)];
        first_ = slot(1);
        --count_;
        return first;
    }

    // Takes the task at `index` of the order they came in; the first one takes its place.
    task_t* take(size_t index)
    {
        std::swap(ring_[slot(0)], ring_[slot(index)]);
        return take_first();
    }

  private:
    static constexpr size_t initial_slots = 16; // always a power of two

    size_t slot(size_t index) const { return (first_ + index) & (ring_.size() - 1); }

    void grow()
    {
        std::vector<task_t*> larger(ring_.empty() ? initial_slots : 2 * ring_.size());
        for (size_t i = 0; i < count_; ++i) larger[i] = ring_[slot(i)];
        ring_ = std::move(larger);
        first_ = 0;
    }

    std::vector<task_t*> ring_;
    size_t first_ = 0;
    size_t count_ = 0;
};

} // namespace exec
