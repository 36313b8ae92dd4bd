// Functions that change atomic values, and a spin lock. They cost little in a process with one thread, for example a
// simulation. In such a process nothing else can run between a load and a store, so these functions use plain loads and
// stores instead of locked instructions. Every change is in memory when the function returns. Therefore the process may
// start a second thread at any moment, even while a lock is held. (libstdc++ counts the references of a shared_ptr in
// the same way.)
#pragma once

#include <atomic>
#include <ext/atomicity.h>
#include <thread>
#include <type_traits>

namespace exec
{

inline bool has_one_thread()
{
    return __gnu_cxx::__is_single_threaded();
}

template <class value_t>
value_t exchange(std::atomic<value_t>& object, std::type_identity_t<value_t> value, std::memory_order order)
{
    if (!has_one_thread()) return object.exchange(value, order);
    const value_t previous = object.load(std::memory_order_relaxed);
    object.store(value, std::memory_order_relaxed);
    return previous;
}

// If the object has the value `expected`, stores `value` and returns true. Otherwise copies the object's value to
// `expected` and returns false.
template <class value_t>
bool compare_exchange(std::atomic<value_t>& object, value_t& expected, std::type_identity_t<value_t> value,
                      std::memory_order order)
{
    if (!has_one_thread()) return object.compare_exchange_strong(expected, value, order);
    const value_t previous = object.load(std::memory_order_relaxed);
    if (previous != expected) {
        expected = previous;
        return false;
    }
    object.store(value, std::memory_order_relaxed);
    return true;
}

// Adds to a number, which may wrap. Returns the number before the addition.
template <class value_t>
value_t fetch_add(std::atomic<value_t>& number, std::type_identity_t<value_t> addend, std::memory_order order)
{
    if (!has_one_thread()) return number.fetch_add(addend, order);
    const value_t previous = number.load(std::memory_order_relaxed);
    number.store(previous + addend, std::memory_order_relaxed);
    return previous;
}

// Adds 1 to a counter, in relaxed memory order. Any thread.
template <class value_t>
void count(std::atomic<value_t>& counter)
{
    fetch_add(counter, 1, std::memory_order_relaxed);
}

// A spin lock for critical sections of a few instructions. The holder must not sleep, and must not call other modules.
class brief_lock
{
  public:
    void lock()
    {
        if (exchange(is_held_, true, std::memory_order_acquire)) wait_and_lock();
    }
    void unlock() { is_held_.store(false, std::memory_order_release); }

  private:
    [[gnu::noinline, gnu::cold]] void wait_and_lock()
    {
        do std::this_thread::yield();
        while (exchange(is_held_, true, std::memory_order_acquire));
    }

    std::atomic<bool> is_held_{false};
};

} // namespace exec
