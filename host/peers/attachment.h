// The attachment of a provider to a peer. A provider is the module that sends the requests of the peer; a peer has at
// most one. The peer calls the provider without holding its lock. The attachment counts these calls. A detach waits
// until the last one has returned.
#pragma once

#include <cassert>

#include "host/peers/waiting.h"

// `send_fn_t` is the type of the provider's function that sends a request.
template <class send_fn_t>
class attachment
{
  public:
    // The arguments of a call into the provider. `send` is null if there is no provider.
    struct provider_t {
        send_fn_t send;
        void* context;
    };

    // Starts without a provider. `lock` guards the attachment and the peer's other state. Deadlock reports show
    // `queue_name`, which must outlive the attachment.
    void open(spinlock_t* lock, const char* queue_name)
    {
        lock_ = lock;
        provider_ = {};
        serial_ = 0;
        is_ending_ = false;
        calls_ = 0;
        init_waitqueue_head_named(&calls_ended_, queue_name);
    }

    // Attaches a provider and stores the handle for its detach. Returns false if an argument is null or another
    // provider is attached. Takes the lock.
    bool attach(send_fn_t send, void* context, void** handle)
    {
        if (!send || !handle) return false;
        spin_guard guard(lock_);
        if (is_attached()) return false;
        provider_ = {send, context};
        ++serial_;
        *handle = reinterpret_cast<void*>(serial_);
        return true;
    }

    // The caller holds the lock.
    bool is_attached() const { return provider_.send != nullptr; }
    bool accepts_calls() const { return is_attached() && !is_ending_; }

    // Counts a call into the provider. The caller holds the lock, and the attachment accepts calls. The caller then
    // releases the lock, makes the call and calls end_call().
    provider_t begin_call()
    {
        assert(is_held(*lock_) && accepts_calls());
        ++calls_;
        return provider_;
    }

    // Call it after the call has returned, with the lock held. Then call wake_detach() without the lock.
    void end_call()
    {
        assert(is_held(*lock_) && calls_ > 0);
        --calls_;
    }
    void wake_detach() { wake_up_interruptible(&calls_ended_); }

    // A detach has four steps: begin_detach(), refuse_calls(), wait_for_calls(), end(). Between the steps, the peer
    // ends its requests. When the peer itself ends, it skips the first step.

    // Accepts no more calls. Returns false if the handle is not that of the provider, or if another task is detaching
    // it. Takes the lock.
    bool begin_detach(void* handle)
    {
        spin_guard guard(lock_);
        if (!accepts_calls() || handle != reinterpret_cast<void*>(serial_)) return false;
        refuse_calls();
        return true;
    }

    // The caller holds the lock.
    void refuse_calls()
    {
        assert(is_held(*lock_));
        is_ending_ = true;
    }

    // Returns when the last call has ended. May sleep. The caller does not hold the lock.
    void wait_for_calls()
    {
        wait_until(&calls_ended_, lock_, [this] { return calls_ == 0; });
    }

    // From here on another provider may attach. The caller holds the lock.
    void end()
    {
        assert(is_held(*lock_) && is_ending_ && calls_ == 0);
        provider_ = {};
        is_ending_ = false;
    }

  private:
    spinlock_t* lock_;
    provider_t provider_;
    uintptr_t serial_; // number of the attachment, and its handle; a stale handle has another number
    bool is_ending_;
    int32_t calls_; // number of calls that have not returned
    wait_queue_head_t calls_ended_;
};
