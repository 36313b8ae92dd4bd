// A fixed number of datagrams. The one put last is taken first, and memory is touched only when a datagram is taken
// for the first time, so that a large pool costs what is used of it.
#pragma once

#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>

#include "host/exec/executor.h"
#include "host/stack/datagram.h"

namespace stack
{

class datagram_pool
{
  public:
    // Null when there is no memory.
    static std::unique_ptr<datagram_pool> make(const exec::executor& exec, std::string name, size_t size);

    // A datagram that is out is a hard error that tells its history.
    ~datagram_pool();
    datagram_pool(const datagram_pool&) = delete;
    datagram_pool& operator=(const datagram_pool&) = delete;

    const std::string& name() const { return name_; }
    size_t size() const { return size_; }
    size_t free() const;

    // The memory that the datagrams lie in.
    const void* memory() const { return slots_.get(); }
    size_t memory_bytes() const { return size_ * sizeof(slot); }

    bool runs_low() const { return free() <= size_ / 2; }

    // A datagram with everything but its MAD zero, in a client's hands; null when none is free. Any thread.
    datagram_record* take();

    // Takes it back from its client. Any thread.
    void put(datagram_record& returned);

  private:
    // Aligned as its record is, and so that two processors never share a line.
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
    mutable std::mutex mutex_; // guards the rest
    size_t touched_ = 0;       // slots from here on were never taken
    size_t free_ = size_;
    datagram_record* first_free_ = nullptr;
};

} // namespace stack
