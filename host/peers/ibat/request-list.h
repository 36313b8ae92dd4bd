// The requests of a resolver: one per key, whatever the number of askers, from the first asker to the last callback. A
// request is being sent, or it waits until its deadline. A timer then hands it back to the resolver, which repeats it
// or gives it up.
//
// The resolver's lock guards everything. Calls are made with the lock held, unless their comment says otherwise.
#pragma once

#include "host/peers/hash-index.h"
#include "host/peers/reply-queue.h"

namespace ibat
{

struct request_base {
    list_head link; // in the sending list or in the waiting list
    uint64_t id;    // distinguishes it from an earlier request for the same key
    list_head askers;
    int32_t attempts; // so far
    bool was_sent;    // at least one attempt was sent
    unsigned long deadline;
};

// `request_t` is a request_base with a key and a link of its own for the index.
template <class request_t, class key_t, key_t request_t::*key, request_t* request_t::*next>
class request_list
{
  public:
    // Before every other call. `due` gets `context` when a request is due, may sleep, and calls take_due(). Without the
    // lock; may sleep.
    void prepare(spinlock_t* lock, void (*due)(unsigned long), void* context)
    {
        lock_ = lock;
        list_init(&sending_list_);
        list_init(&waiting_list_);
        last_id_ = 0;
        count_ = 0;
        is_timer_armed_ = false;
        init_timing(&timer_);
        timer_.function = due;
        timer_.data = reinterpret_cast<unsigned long>(context);
        replies_.open(lock);
    }

    // False: no memory. Without the lock; may sleep.
    bool open()
    {
        constexpr size_t expected_requests = 512;
        return requests_by_key_.open(expected_requests);
    }

    // After the last request has ended, and none is made any more. `due` does not run afterwards. Without the lock; may
    // sleep.
    void stop_timer() { del_timing_sync(&timer_); }

    // Makes the callbacks that are still owed, and frees the index. Without the lock; may sleep.
    void close()
    {
        replies_.close();
        requests_by_key_.close();
    }

    uint64_t count() const { return count_; }

    request_t* find(const key_t& value) const { return requests_by_key_.find(value); }

    // The request, unless it has ended; null: it has.
    request_t* find(const key_t& value, uint64_t id) const
    {
        request_t* request = find(value);
        return request && request->id == id ? request : nullptr;
    }

    // Joins or makes the request for a key, if look() returns ibat_stat_pending; begin() takes a new one, which is
    // being sent. Both are called with the lock held. Returns what look() returns, or an error if there is no memory.
    // Takes the lock.
    template <class look_t, class begin_t>
    ibat_stat_t ask(const key_t& value, ibat_get_ib_data_reply_fn_t callback, void* context, const look_t& look,
                    const begin_t& begin)
    {
        auto* asker = static_cast<asker_t*>(kmalloc(sizeof(asker_t), GFP_KERNEL));
        auto* new_request = static_cast<request_t*>(kmalloc(sizeof(request_t), GFP_KERNEL));
        ibat_stat_t status = ibat_stat_error;
        if (asker && new_request) {
            asker->callback = callback;
            asker->context = context;
            spin_guard guard(lock_);
            status = look();
            if (status == ibat_stat_pending) {
                if (join(value, asker, new_request)) {
                    begin(new_request);
                    new_request = nullptr;
                }
                asker = nullptr;
            }
        }
        kfree(asker);
        kfree(new_request);
        return status;
    }

    // Withdraws the matching askers, and gives up requests that no asker remains for, with give_up(). Returns their
    // number when no matching callback runs. Takes the lock; may sleep; a callback must not cancel itself.
    template <class give_up_t>
    int32_t cancel(ibat_get_ib_data_reply_fn_t callback, void* context, const give_up_t& give_up)
    {
        int32_t withdrawn;
        {
            spin_guard guard(lock_);
            withdrawn = replies_.withdraw(callback, context);
            for_each([&](request_t* request) {
                withdrawn += withdraw_askers(&request->askers, callback, context);
                if (list_empty(&request->askers)) give_up(request);
            });
        }
        replies_.wait_while_running(callback, context);
        return withdrawn;
    }

    // Calls visit() with every request; it may end that request.
    template <class visit_t>
    void for_each(const visit_t& visit)
    {
        for (list_head* requests : {&sending_list_, &waiting_list_})
            for (list_head* link = requests->next; link != requests;) {
                request_t* request = request_of(link);
                link = link->next;
                visit(request);
            }
    }

    // An attempt of the request was sent, or refused: it waits for so many ticks. All requests wait equally long, so
    // the waiting list is in the order of the deadlines.
    void wait(request_t* request, unsigned long ticks)
    {
        request->deadline = jiffies + ticks;
        list_del_init(&request->link);
        list_add_tail(&request->link, &waiting_list_);
        arm_timer();
    }

    // The request is due at once.
    void hurry(request_t* request)
    {
        request->deadline = jiffies;
        list_del_init(&request->link);
        list_add(&request->link, &waiting_list_);
        restart_timer();
    }

    // The same of all that wait.
    void hurry_all()
    {
        if (list_empty(&waiting_list_)) return;
        for (list_head* link = waiting_list_.next; link != &waiting_list_; link = link->next)
            request_of(link)->deadline = jiffies;
        restart_timer();
    }

    // The next request that is due. It is being sent from now on. Null: none; the timer is armed for the others.
    request_t* take_due()
    {
        if (!list_empty(&waiting_list_) && has_come(request_of(waiting_list_.next)->deadline)) {
            request_t* request = request_of(waiting_list_.next);
            list_del_init(&request->link);
            list_add_tail(&request->link, &sending_list_);
            return request;
        }
        restart_timer();
        return nullptr;
    }

    // Ends a request: queues the callbacks of its askers and frees it.
    void end(request_t* request, ibat_stat_t status, const ibat_arp_data_t& answer)
    {
        while (!list_empty(&request->askers)) {
            asker_t* asker = list_entry(request->askers.next, asker_t, link);
            list_del_init(&asker->link);
            replies_.owe(asker, status, answer);
        }
        assert(count_ > 0);
        requests_by_key_.remove(request);
        list_del_init(&request->link);
        kfree(request);
        --count_;
    }

  private:
    static request_t* request_of(list_head* link)
    {
        return static_cast<request_t*>(list_entry(link, request_base, link));
    }

    static bool has_come(unsigned long deadline)
    {
        return static_cast<long>(jiffies - deadline) >= 0; // right across the wrap of the tick count
    }

    // Gives `asker` to the request for the key. True: that is `new_request`.
    bool join(const key_t& value, asker_t* asker, request_t* new_request)
    {
        request_t* request = find(value);
        if (request) {
            list_add_tail(&asker->link, &request->askers);
            return false;
        }
        new_request->*key = value;
        new_request->id = ++last_id_;
        new_request->attempts = 0;
        new_request->was_sent = false;
        list_init(&new_request->link);
        list_init(&new_request->askers);
        list_add_tail(&asker->link, &new_request->askers);
        list_add_tail(&new_request->link, &sending_list_);
        requests_by_key_.insert(new_request);
        ++count_;
        return true;
    }

    void arm_timer()
    {
        assert(is_held(*lock_));
        if (is_timer_armed_ || list_empty(&waiting_list_)) return;
        is_timer_armed_ = true;
        timer_.expires = request_of(waiting_list_.next)->deadline;
        add_timing(&timer_);
    }

    void restart_timer()
    {
        is_timer_armed_ = false;
        arm_timer();
    }

    spinlock_t* lock_;
    hash_index<request_t, key_t, key, next> requests_by_key_;
    list_head sending_list_; // requests of which an attempt is being sent
    list_head waiting_list_; // requests that wait for an answer, earliest deadline first
    uint64_t last_id_;
    uint64_t count_;
    bool is_timer_armed_; // or `due` runs
    timing_t timer_;
    reply_queue replies_;
};

} // namespace ibat
