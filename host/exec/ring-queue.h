// A first-in, first-out queue of pointers, in a ring buffer that grows. push() allocates memory only when the buffer is
// full. The queue does not own the objects. It has no lock: the caller guards it.
#pragma once

#include <cassert>
#include <cstddef>
#include <utility>
#include <vector>

namespace exec
{

template <class object_t>
class ring_queue
{
  public:
    bool empty() const { return count_ == 0; }
    size_t size() const { return count_; }

    void push(object_t* object)
    {
        if (count_ == ring_.size()) grow();
        ring_[slot(count_++)] = object;
    }

    // The queue must not be empty.
    object_t* take_first()
    {
        assert(count_ > 0);
        object_t* first = ring_[slot(0)];
        first_ = slot(1);
        --count_;
        return first;
    }

    // The last object in the queue. The queue must not be empty.
    const object_t& last() const { return at(count_ - 1); }

    // The object at `index`, counted from the first object of the queue.
    const object_t& at(size_t index) const
    {
        assert(index < count_);
        return *ring_[slot(index)];
    }

    // Removes and returns the object at `index`. To fill the gap, the first object moves to the place of the removed
    // one, so the order changes.
    object_t* take(size_t index)
    {
        assert(index < count_);
        std::swap(ring_[slot(0)], ring_[slot(index)]);
        return take_first();
    }

  private:
    static constexpr size_t initial_slots = 16; // the size of the ring is always a power of two

    size_t slot(size_t index) const { return (first_ + index) & (ring_.size() - 1); }

    void grow()
    {
        std::vector<object_t*> larger(ring_.empty() ? initial_slots : 2 * ring_.size());
        for (size_t i = 0; i < count_; ++i) larger[i] = ring_[slot(i)];
        ring_ = std::move(larger);
        first_ = 0;
    }

    std::vector<object_t*> ring_;
    size_t first_ = 0;
    size_t count_ = 0;
};

} // namespace exec
