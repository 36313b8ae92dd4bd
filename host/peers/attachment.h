// The attachment of a provider to a peer. A peer is a module such as IBAT or UCM. Its provider is the module that sends
// its requests to the SA. A peer has at most one provider. The peer does not hold its own lock while it calls the
// provider. The attachment counts the running calls, and a detach waits until all of them have returned.
#pragma once

#include <cassert>

#include "host/peers/waiting.h"

// `send_fn_t` is the type of the provider's function that sends a request.
template <class send_fn_t>
class attachment
{
  public:
    // The provider's function, and the context that it gets. `send` is null if there is no provider.
    struct provider_t {
        send_fn_t send;
        void* context;
    };

    // Prepares an attachment without a provider. `lock` guards the attachment and the peer's other state. Deadlock
    // reports show `queue_name`, a text that must outlive the attachment.
    void open(spinlock_t* lock, const char* queue_name)
    {
        lock_ = lock;
        provider_ = {};
        serial_ = 0;
        is_ending_ = false;
        calls_ = 0;
        init_waitqueue_head_named(&calls_ended_, queue_name);
    }

    // Attaches a provider. Stores in `*handle` the handle that the provider passes when it detaches itself. Returns
    // false if `send` or `handle` is null or another provider is attached. Takes the lock.
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

    // Counts a call of the provider's function as running, and returns this function and its context. The caller holds
    // the lock, and accepts_calls() is true. The caller then releases the lock, calls the provider and calls
    // end_call().
    provider_t begin_call()
    {
        assert(is_held(*lock_) && accepts_calls());
        ++calls_;
        return provider_;
    }

    // Call end_call() with the lock held when the provider's function has returned. Then release the lock and call
    // wake_detach().
    void end_call()
    {
        assert(is_held(*lock_) && calls_ > 0);
        --calls_;
    }
    void wake_detach() { wake_up_interruptible(&calls_ended_); }

    // The peer detaches its provider in three steps: begin_detach(), wait_for_calls(), end(). Between these steps, the
    // peer ends its requests. When the peer itself is unloaded, it calls refuse_calls() instead of begin_detach().

    // Refuses further calls. Returns false if `handle` is not the handle of the attached provider, or if the
    // attachment is ending already. Takes the lock.
    bool begin_detach(void* handle)
    {
        spin_guard guard(lock_);
        if (!accepts_calls() || handle != reinterpret_cast<void*>(serial_)) return false;
        refuse_calls();
        return true;
    }

    // From here on, accepts_calls() is false. The caller holds the lock.
    void refuse_calls()
    {
        assert(is_held(*lock_));
        is_ending_ = true;
    }

    // Returns when no call of the provider's function runs any more. May sleep. The caller does not hold the lock.
    void wait_for_calls()
    {
        wait_until(&calls_ended_, lock_, [this] { return calls_ == 0; });
    }

    // From here on, another provider may attach itself. The caller holds the lock.
    void end()
    {
        assert(is_held(*lock_) && is_ending_ && calls_ == 0);
        provider_ = {};
        is_ending_ = false;
    }

  private:
    spinlock_t* lock_;
    provider_t provider_;
    uintptr_t serial_; // counts the attachments; the latest number is the provider's handle
    bool is_ending_;   // true from refuse_calls() to end()
    int32_t calls_;    // number of running calls
    wait_queue_head_t calls_ended_;
};
