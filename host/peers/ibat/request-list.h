// The requests of a resolver: class resolver asks for addresses, class path_resolver asks for paths. An asker is a call
// of another module that waits for its callback (reply-queue.h). All askers for the same key share one request.
//
// A request is in one of two lists. It is in the sending list while an attempt is being sent. Then it is in the waiting
// list until its deadline. After the deadline, the handler of a timer gets it from take_due(). The handler sends
// another attempt or ends the request.
//
// The resolver's lock guards all members. The caller of a function holds the lock, unless the function's comment says
// otherwise.
#pragma once

#include "host/peers/hash-index.h"
#include "host/peers/reply-queue.h"

namespace ibat
{

struct request_base {
    list_head link;         // in the sending list or in the waiting list
    uint64_t id;            // no earlier request for the same key has this number
    list_head askers;       // askers that have no answer yet, oldest first
    int32_t attempts;       // number of attempts so far
    bool was_sent;          // true if at least one attempt was sent
    unsigned long deadline; // in ticks; only used in the waiting list
};

// `request_t` is derived from request_base. It adds two members: its key, and a link for the hash index.
template <class request_t, class key_t, key_t request_t::*key, request_t* request_t::*next>
class request_list
{
  public:
    // Call it once, before all other calls. When the deadline of a request has come, a timer calls `due` with
    // `context`. `due` must call take_due() until it returns null. `due` may sleep. The caller does not hold the lock.
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

    // Allocates the hash index. Returns false if there is no memory. The caller does not hold the lock. May sleep.
    bool open()
    {
        constexpr size_t expected_requests = 512;
        return requests_by_key_.open(expected_requests);
    }

    // Call it when all requests have ended and no new ones are made. After the return, `due` does not run any more. The
    // caller does not hold the lock. May sleep.
    void stop_timer() { del_timing_sync(&timer_); }

    // Makes the remaining callbacks and frees the hash index. The caller does not hold the lock. May sleep.
    void close()
    {
        replies_.close();
        requests_by_key_.close();
    }

    uint64_t count() const { return count_; }

    request_t* find(const key_t& value) const { return requests_by_key_.find(value); }

    // Returns the request with this key and ID, or null if it has ended.
    request_t* find(const key_t& value, uint64_t id) const
    {
        request_t* request = find(value);
        return request && request->id == id ? request : nullptr;
    }

    // Calls check(). If the result is not ibat_stat_pending, no request is necessary: adds nothing, and returns the
    // result. Otherwise adds an asker to the request for the key `value`. If there is no such request, makes one and
    // calls begin(request). The caller must then send an attempt of this new request after the return.
    //
    // check() and begin() run with the lock held and must not sleep. Returns ibat_stat_pending if it has added the
    // asker. If there is no memory, returns ibat_stat_error without a call of check(). The caller does not hold the
    // lock. May sleep.
    template <class check_t, class begin_t>
    ibat_stat_t ask(const key_t& value, ibat_get_ib_data_reply_fn_t callback, void* context, const check_t& check,
                    const begin_t& begin)
    {
        auto* asker = static_cast<asker_t*>(kmalloc(sizeof(asker_t), GFP_KERNEL));
        auto* new_request = static_cast<request_t*>(kmalloc(sizeof(request_t), GFP_KERNEL));
        ibat_stat_t status = ibat_stat_error;
        if (asker && new_request) {
            asker->callback = callback;
            asker->context = context;
            spin_guard guard(lock_);
            status = check();
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

    // Cancels the askers with this callback and context. Calls give_up(request) for a request that has no asker left.
    // Waits until this callback does not run with this context. Returns the number of cancelled askers. The caller does
    // not hold the lock. May sleep. A callback must not cancel itself.
    template <class give_up_t>
    int32_t cancel(ibat_get_ib_data_reply_fn_t callback, void* context, const give_up_t& give_up)
    {
        int32_t cancel_count;
        {
            spin_guard guard(lock_);
            cancel_count = replies_.withdraw(callback, context);
            for_each([&](request_t* request) {
                cancel_count += withdraw_askers(&request->askers, callback, context);
                if (list_empty(&request->askers)) give_up(request);
            });
        }
        replies_.wait_while_running(callback, context);
        return cancel_count;
    }

    // Calls visit(request) for every request. visit() may end this request, but no other one.
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

    // Call it when an attempt of the request was sent or refused. Moves the request to the end of the waiting list,
    // with a deadline `ticks` from now. `ticks` must be the same in all calls, so that the list is in the order of the
    // deadlines.
    void move_to_waiting(request_t* request, unsigned long ticks)
    {
        request->deadline = jiffies + ticks;
        list_del_init(&request->link);
        list_add_tail(&request->link, &waiting_list_);
        arm_timer();
    }

    // Moves the request to the beginning of the waiting list, with the present tick as its deadline.
    void hurry(request_t* request)
    {
        request->deadline = jiffies;
        list_del_init(&request->link);
        list_add(&request->link, &waiting_list_);
        restart_timer();
    }

    // Sets the deadline of all requests in the waiting list to the present tick.
    void hurry_all()
    {
        if (list_empty(&waiting_list_)) return;
        for (list_head* link = waiting_list_.next; link != &waiting_list_; link = link->next)
            request_of(link)->deadline = jiffies;
        restart_timer();
    }

    // If the deadline of a request has come, moves the request to the sending list and returns it. Otherwise arms the
    // timer for the next deadline, if there is one, and returns null.
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

    // Ends a request: puts its askers into the reply queue, which calls them back later, and frees the request.
    void end(request_t* request, ibat_stat_t status, const ibat_arp_data_t& answer)
    {
        while (!list_empty(&request->askers)) {
            asker_t* asker = list_entry(request->askers.next, asker_t, link);
            list_del_init(&asker->link);
            replies_.add(asker, status, answer);
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
        return static_cast<long>(jiffies - deadline) >= 0; // correct even if the tick count has wrapped around
    }

    // Adds `asker` to the request for the key `value`. If there is none, makes `new_request` this request and returns
    // true.
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
    list_head sending_list_; // an attempt of these requests is being sent
    list_head waiting_list_; // these requests wait for an answer; earliest deadline first
    uint64_t last_id_;
    uint64_t count_;
    bool is_timer_armed_; // true while the timer is armed or its handler `due` runs
    timing_t timer_;
    reply_queue replies_;
};

} // namespace ibat
