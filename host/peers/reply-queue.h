// The callbacks that a peer still has to make. Answers arrive in contexts that may not sleep, but a callback may sleep
// and may ask again. Therefore a sleeping timer makes the callbacks, one after another. An asker is in exactly one
// place at a time: in its request, in this queue, or in its callback. Therefore each asker gets exactly one
// callback.
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
    ibat_stat_t status;
    ibat_arp_data_t answer;

    bool matches(ibat_get_ib_data_reply_fn_t other_callback, void* other_context) const
    {
        return callback == other_callback && context == other_context;
    }
};

// Unlinks and frees the matching askers of a list. Returns their number. The caller holds the lock that guards the
// list.
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
    // `lock` guards the queue and the peer's other state. May sleep.
    void open(spinlock_t* lock)
    {
        lock_ = lock;
        list_init(&owed_askers_);
        called_asker_ = nullptr;
        is_scheduled_ = false;
        init_waitqueue_head_named(&callback_ended_, "peer callback");
        init_timing(&timer_);
        timer_.function = [](unsigned long self) { reinterpret_cast<reply_queue*>(self)->deliver(); };
        timer_.data = reinterpret_cast<unsigned long>(this);
    }

    // Calls `asker` back soon, and then frees it. `asker` comes from kmalloc and must not be in a list. The caller
    // holds the lock. Any context.
    void owe(asker_t* asker, ibat_stat_t status, const ibat_arp_data_t& answer)
    {
        assert(is_held(*lock_) && list_empty(&asker->link));
        asker->status = status;
        asker->answer = answer;
        if (answer.primary_path == &answer.paths[0]) asker->answer.primary_path = &asker->answer.paths[0];
        list_add_tail(&asker->link, &owed_askers_);
        if (is_scheduled_) return;
        is_scheduled_ = true;
        timer_.expires = jiffies;
        add_timing(&timer_);
    }

    // Cancels the matching callbacks in the queue. Returns their number. The caller holds the lock.
    int32_t withdraw(ibat_get_ib_data_reply_fn_t callback, void* context)
    {
        assert(is_held(*lock_));
        return withdraw_askers(&owed_askers_, callback, context);
    }

    // Returns when no matching callback runs. May sleep; a callback must not wait for itself.
    void wait_while_running(ibat_get_ib_data_reply_fn_t callback, void* context)
    {
        wait_until(&callback_ended_, lock_,
                   [&] { return !called_asker_ || !called_asker_->matches(callback, context); });
    }

    // Makes the remaining callbacks in the calling task. The peer must not add more. May sleep.
    void close()
    {
        del_timing_sync(&timer_);
        deliver();
    }

  private:
    // Only one task at a time runs this: the timer is armed again only after the queue was empty.
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

    // The next asker to call, or null.
    asker_t* take()
    {
        spin_guard guard(lock_);
        assert(!called_asker_);
        if (list_empty(&owed_askers_)) {
            is_scheduled_ = false;
            return nullptr;
        }
        called_asker_ = list_entry(owed_askers_.next, asker_t, link);
        list_del_init(&called_asker_->link);
        return called_asker_;
    }

    spinlock_t* lock_;
    list_head owed_askers_; // oldest first
    asker_t* called_asker_; // the asker whose callback runs, or null
    bool is_scheduled_;     // the timer is armed, or its handler runs
    wait_queue_head_t callback_ended_;
    timing_t timer_;
};
