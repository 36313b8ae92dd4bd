// The attachment of a provider to a peer. A provider is the module that sends the requests of the peer; a peer has at
// most one. The peer calls the provider without its lock. The attachment counts these calls, so that a detach can wait
// until the last one has returned.
#pragma once

#include <cassert>

#include "host/peers/waiting.h"

// `send_fn_t` is the type of the provider's function that sends a request.
template <class send_fn_t>
class attachment
{
  public:
    // The arguments of a call into the provider. `send` is null when there is no provider to call.
    struct provider_t {
        send_fn_t send;
        void* context;
    };

    // Nobody is attached yet. `lock` guards the attachment along with the peer's other state. `queue_name` is for
    // reports of a deadlock; it outlives the attachment.
    void open(spinlock_t* lock, const char* queue_name)
    {
        lock_ = lock;
        provider_ = {};
        serial_ = 0;
        is_ending_ = false;
        calls_ = 0;
        init_waitqueue_head_named(&calls_ended_, queue_name);
    }

    // Attaches a provider and stores the handle for its detach. False: an argument is null, or another provider is
    // attached. Takes the lock.
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

    // With the lock held.
    bool is_attached() const { return provider_.send != nullptr; }
    bool accepts_calls() const { return is_attached() && !is_ending_; }

    // Counts a call into the provider. The caller makes it without the lock, and then calls end_call(). With the lock
    // held; the attachment accepts calls.
    provider_t begin_call()
    {
        assert(is_held(*lock_) && accepts_calls());
        ++calls_;
        return provider_;
    }

    // The call has returned. With the lock held; the caller then calls wake_detach() without it.
    void end_call()
    {
        assert(is_held(*lock_) && calls_ > 0);
        --calls_;
    }
    void wake_detach() { wake_up_interruptible(&calls_ended_); }

    // A detach has four steps: begin_detach(), refuse_calls(), wait_for_calls(), end(). Between them the peer ends its
    // requests. The end of the peer itself leaves out the first.

    // Accepts no further call. False: the handle is not that of the provider, or another task detaches it. Takes the
    // lock.
    bool begin_detach(void* handle)
    {
        spin_guard guard(lock_);
        if (!accepts_calls() || handle != reinterpret_cast<void*>(serial_)) return false;
        refuse_calls();
        return true;
    }

    // With the lock held.
    void refuse_calls()
    {
        assert(is_held(*lock_));
        is_ending_ = true;
    }

    // Returns when the last call has ended. May sleep; without the lock.
    void wait_for_calls()
    {
        wait_until(&calls_ended_, lock_, [this] { return calls_ == 0; });
    }

    // From here on another provider may attach. With the lock held.
    void end()
    {
        assert(is_held(*lock_) && is_ending_ && calls_ == 0);
        provider_ = {};
        is_ending_ = false;
    }

  private:
    spinlock_t* lock_;
    provider_t provider_;
    uintptr_t serial_; // of the attachment; it is the handle, so that a stale one is recognised
    bool is_ending_;
    int32_t calls_; // that have not returned
    wait_queue_head_t calls_ended_;
};
