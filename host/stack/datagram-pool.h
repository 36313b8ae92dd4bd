// A fixed number of datagrams. The datagram put last is taken first. A datagram uses memory only after its first use,
// so a large pool costs only the datagrams in use.
#pragma once

#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>

#include "host/exec/brief-lock.h"
#include "host/exec/executor.h"
#include "host/stack/datagram.h"

namespace stack
{

class datagram_pool
{
  public:
    // Returns null if there is no memory. `exec` outlives the pool.
    static std::unique_ptr<datagram_pool> make(const exec::executor& exec, std::string name, size_t size);

    // A datagram that was not put back is a hard error that shows its history.
    ~datagram_pool();
    datagram_pool(const datagram_pool&) = delete;
    datagram_pool& operator=(const datagram_pool&) = delete;

    const std::string& name() const { return name_; }
    size_t size() const { return size_; }
    size_t free() const;

    // The memory of the datagrams.
    const void* memory() const { return slots_.get(); }
    size_t memory_bytes() const { return size_ * sizeof(slot); }

    // Returns true if at most half of the datagrams are free.
    bool runs_low() const { return free() <= size_ / 2; }

    // Returns a free datagram, or null if none is free. The caller then owns it. Its fields behind the MAD are zero.
    // Any thread.
    datagram_record* take();

    // Takes a datagram of this pool back from its client. Any thread.
    void put(datagram_record& record);

  private:
    // Aligned for the datagram's record. No two datagrams share a cache line.
    struct alignas(64) slot {
        gsi_dtgrm_t datagram;
    };
    struct free_memory {
        void operator()(slot* slots) const { std::free(slots); }
    };
    using slot_memory = std::unique_ptr<slot[], free_memory>;

    datagram_pool(const exec::executor& exec, std::string name, size_t size, slot_memory slots)
        : exec_(exec), name_(std::move(name)), size_(size), slots_(std::move(slots))
    {
    }

    const exec::executor& exec_;
    const std::string name_;
    const size_t size_;
    const slot_memory slots_;
    mutable exec::brief_lock mutex_; // guards the members below
    size_t used_slots_ = 0;          // the slots after these were never taken and have no record
    size_t free_count_ = size_;
    datagram_record* free_list_ = nullptr; // list of free used slots
};

} // namespace stack
