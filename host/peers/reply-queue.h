// Callbacks that a peer owes to its askers. Answers arrive in contexts that may not sleep, while an asker may want to
// ask again, which sleeps; so callbacks are made one after another by a task of their own. An asker is in exactly one
// place at a time: with its request, owed here, or being called. That is what makes it one callback each.
#pragma once

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

    bool is(ibat_get_ib_data_reply_fn_t its_callback, void* its_context) const
    {
        return callback == its_callback && context == its_context;
    }
};

// Unlinks and frees the askers of a list that match; returns how many. With the guarding lock held.
inline int32_t withdraw_askers(list_head* askers, ibat_get_ib_data_reply_fn_t callback, void* context)
{
    int32_t withdrawn = 0;
    for (list_head* link = askers->next; link != askers;) {
        asker_t* asker = list_entry(link, asker_t, link);
        link = link->next;
        if (!asker->is(callback, context)) continue;
        list_del_init(&asker->link);
        kfree(asker);
        ++withdrawn;
    }
    return withdrawn;
}

class reply_queue
{
  public:
    // `lock` guards the queue along with whatever else its owner keeps.
    void open(spinlock_t* lock)
    {
        lock_ = lock;
        list_init(&owed_);
        running_ = nullptr;
        scheduled_ = false;
        init_waitqueue_head_named(&finished_, "peer callback");
        init_timing(&timer_);
        timer_.function = [](unsigned long self) { reinterpret_cast<reply_queue*>(self)->deliver(); };
        timer_.data = reinterpret_cast<unsigned long>(this);
    }

    // Takes over `asker`, memory of kmalloc that is on no list, and calls it back soon. With the lock held.
    void owe(asker_t* asker, ibat_stat_t status, const ibat_arp_data_t& answer)
    {
        asker->status = status;
        asker->answer = answer;
        list_add_tail(&asker->link, &owed_);
        if (scheduled_) return;
        scheduled_ = true;
        timer_.expires = jiffies;
        add_timing(&timer_);
    }

    // Withdraws those owed that match; returns how many. With the lock held.
    int32_t withdraw(ibat_get_ib_data_reply_fn_t callback, void* context)
    {
        return withdraw_askers(&owed_, callback, context);
    }

    // Returns when no callback that matches is running. May sleep; never called by a callback for itself.
    void wait_while_running(ibat_get_ib_data_reply_fn_t callback, void* context)
    {
        wait_until(&finished_, lock_, [&] { return !running_ || !running_->is(callback, context); });
    }

    // Makes the callbacks that are still owed, in the calling task. Nothing is owed any more from here on. May sleep.
    void close()
    {
        del_timing_sync(&timer_);
        deliver();
    }

  private:
    // Only one task at a time is here: the timer is not armed again before the queue was found empty.
    void deliver()
    {
        while (asker_t* asker = take()) {
            asker->callback(asker->status, &asker->answer, asker->context);
            {
                spin_guard guard(lock_);
                running_ = nullptr;
            }
            kfree(asker);
            wake_up_interruptible(&finished_);
        }
    }

    asker_t* take()
    {
        spin_guard guard(lock_);
        if (list_empty(&owed_)) {
            scheduled_ = false;
            return nullptr;
        }
        running_ = list_entry(owed_.next, asker_t, link);
        list_del_init(&running_->link);
        return running_;
    }

    spinlock_t* lock_;
    list_head owed_;
    asker_t* running_;
    bool scheduled_; // the timer is armed or its handler at work
    wait_queue_head_t finished_;
    timing_t timer_;
};
