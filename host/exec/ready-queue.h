// A first-in, first-out queue of tasks, in a ring that grows. Pushing allocates only when the ring is full. For one
// thread.
#pragma once

#include <cassert>
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

    void push(task_t* task)
    {
        if (count_ == ring_.size()) grow();
        ring_[slot(count_++)] = task;
    }

    // The queue must not be empty.
    task_t* take_first()
    {
        assert(count_ > 0);
        task_t* first = ring_[slot(0)];
        first_ = slot(1);
        --count_;
        return first;
    }

    // The task at `index` in the order of arrival.
    const task_t& at(size_t index) const
    {
        assert(index < count_);
        return *ring_[slot(index)];
    }

    // Removes and returns the task at `index` in the order of arrival. The first task moves to that place.
    task_t* take(size_t index)
    {
        assert(index < count_);
        std::swap(ring_[slot(0)], ring_[slot(index)]);
        return take_first();
    }

  private:
    static constexpr size_t initial_slots = 16; // every size of the ring is a power of two

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
