// The queue of callbacks that IBAT or UCM still has to make. An asker is a call of another module that waits for its
// callback. Answers arrive in contexts that may not sleep, but a callback may sleep and may ask again. Therefore the
// handler of a timer, which may sleep, makes the callbacks one after another.
//
// An asker is in one place at a time: in the list of its request, in this queue, or in its running callback. Therefore
// no asker gets two callbacks. An asker that is withdrawn gets none.
#pragma once

#include <cassert>

#include "host/peers/waiting.h"
#include "ibat.h"
#include "kernel/memory.h"
#include "timing.h"

struct asker_t {
    list_head link;
    ibat_get_ib_data_reply_fn_t callback;
    void* context;
    ibat_stat_t status;     // first argument of the callback
    ibat_arp_data_t answer; // second argument of the callback

    bool matches(ibat_get_ib_data_reply_fn_t other_callback, void* other_context) const
    {
        return callback == other_callback && context == other_context;
    }
};

// Unlinks and frees the askers of a list that have this callback and context. Returns their number. The caller holds
// the lock that guards the list.
inline int32_t withdraw_askers(list_head* askers, ibat_get_ib_data_reply_fn_t callback, void* context)
{
    int32_t withdraw_count = 0;
    for (list_head* link = askers->next; link != askers;) {
        asker_t* asker = list_entry(link, asker_t, link);
        link = link->next;
        if (!asker->matches(callback, context)) continue;
        list_del_init(&asker->link);
        kfree(asker);
        ++withdraw_count;
    }
    return withdraw_count;
}

class reply_queue
{
  public:
    // `lock` guards the queue and the other state of its module.
    void open(spinlock_t* lock)
    {
        lock_ = lock;
        list_init(&askers_);
        called_asker_ = nullptr;
        is_scheduled_ = false;
        init_waitqueue_head_named(&callback_ended_, "peer callback");
        init_timing(&timer_);
        timer_.function = [](unsigned long self) { reinterpret_cast<reply_queue*>(self)->deliver(); };
        timer_.data = reinterpret_cast<unsigned long>(this);
    }

    // Adds an asker to the queue. The timer calls it back with `status` and `answer`, and then frees it. `asker` comes
    // from kmalloc and must not be in a list. The caller holds the lock. Any context.
    void add(asker_t* asker, ibat_stat_t status, const ibat_arp_data_t& answer)
    {
        assert(is_held(*lock_) && list_empty(&asker->link));
        asker->status = status;
        asker->answer = answer;
        if (answer.primary_path == &answer.paths[0]) asker->answer.primary_path = &asker->answer.paths[0];
        list_add_tail(&asker->link, &askers_);
        if (is_scheduled_) return;
        is_scheduled_ = true;
        timer_.expires = jiffies;
        add_timing(&timer_);
    }

    // Removes the askers with this callback and context from the queue. Returns their number. The caller holds the
    // lock.
    int32_t withdraw(ibat_get_ib_data_reply_fn_t callback, void* context)
    {
        assert(is_held(*lock_));
        return withdraw_askers(&askers_, callback, context);
    }

    // Returns when this callback does not run with this context. The caller does not hold the lock. May sleep. A
    // callback must not wait for itself.
    void wait_while_running(ibat_get_ib_data_reply_fn_t callback, void* context)
    {
        wait_until(&callback_ended_, lock_,
                   [&] { return !called_asker_ || !called_asker_->matches(callback, context); });
    }

    // Makes the remaining callbacks in the calling task. Do not call add() any more. May sleep.
    void close()
    {
        del_timing_sync(&timer_);
        deliver();
    }

  private:
    // Makes the callbacks until the queue is empty. Only one task at a time runs this function: add() arms the timer
    // only if it is not armed and its handler does not run.
    void deliver()
    {
        for (asker_t* asker = take(); asker; asker = take()) {
            asker->callback(asker->status, &asker->answer, asker->context);
            {
                spin_guard guard(lock_);
                called_asker_ = nullptr;
            }
            kfree(asker);
            wake_up_interruptible(&callback_ended_);
        }
    }

    // Removes the oldest asker from the queue and returns it, or returns null if the queue is empty.
    asker_t* take()
    {
        spin_guard guard(lock_);
        assert(!called_asker_);
        if (list_empty(&askers_)) {
            is_scheduled_ = false;
            return nullptr;
        }
        called_asker_ = list_entry(askers_.next, asker_t, link);
        list_del_init(&called_asker_->link);
        return called_asker_;
    }

    spinlock_t* lock_;
    list_head askers_;      // oldest first
    asker_t* called_asker_; // the asker whose callback runs, or null
    bool is_scheduled_;     // true while the timer is armed or its handler runs
    wait_queue_head_t callback_ended_;
    timing_t timer_;
};
