// A pool of a fixed number of datagrams. take() prefers the datagram that was put back last. A datagram uses memory
// only after its first use, so a large pool costs only the datagrams that were used.
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
    // Returns null if there is no memory. `exec` is the clock of the datagrams' histories and must outlive the pool.
    static std::unique_ptr<datagram_pool> make(const exec::executor& exec, std::string name, size_t size);

    // Ends the process (exec::panic) if a datagram was not put back. The message shows the history of the datagram.
    ~datagram_pool();
    datagram_pool(const datagram_pool&) = delete;
    datagram_pool& operator=(const datagram_pool&) = delete;

    const std::string& name() const { return name_; }
    size_t size() const { return size_; }
    size_t free() const;

    // The memory of all datagrams. The GSI service passes it to kernel::address_layout, so that logs show nominal
    // addresses.
    const void* memory() const { return slots_.get(); }
    size_t memory_bytes() const { return size_ * sizeof(slot); }

    // Returns true if at most half of the datagrams are free. The GSI layer then completes posted datagrams at once, so
    // that their client can put them back.
    bool runs_low() const { return free() <= size_ / 2; }

    // Returns a free datagram, or null if none is free. The caller then owns the datagram. Its fields from rmpp_payload
    // on are zero. Any thread.
    datagram_record* take();

    // Puts a datagram of this pool back. Ends the process (exec::panic) if no client owns the datagram. Any thread.
    void put(datagram_record& record);

  private:
    // Aligned as datagram_record requires. No two datagrams share a cache line.
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
    size_t used_slots_ = 0;          // the slots from this index on were never taken and have no datagram_record yet
    size_t free_count_ = size_;
    datagram_record* free_list_ = nullptr; // the free datagrams that were taken before, linked by datagram_record::next
};

} // namespace stack
