// The GSI layer of one HCA. One queue holds the sent and the arrived datagrams, in order. The HCA's completion context
// takes everything from the queue and passes the datagrams to the clients' callbacks one by one. Two kinds of tasks can
// run this context, but only one task at a time: the adapter's own task, or a task that has just received answers from
// the fabric (may_complete()).
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "host/exec/brief-lock.h"
#include "host/stack/datagram-pool.h"
#include "host/stack/hca-hub.h"
#include "host/stack/registrations.h"
#include "host/stack/sa-traffic.h"
#include "host/stack/service-task.h"

namespace stack
{

class gsi_adapter;

struct gsi_counts {
    uint64_t posted = 0;
    uint64_t refused = 0; // posts that the fabric refused
    uint64_t completed = 0;
    uint64_t delivered = 0;
    uint64_t dropped_no_response = 0; // arrived without the response bit: requests, which GSI does not serve
    uint64_t dropped_no_class = 0;    // arrived for a class that is not registered on the port
    uint64_t dropped_no_asker = 0;    // answers to a client that had joined the class and has left it
    uint64_t dropped_no_datagram = 0; // arrived while the receive pool was empty
};

} // namespace stack

// A client's registration: the client has registered a class on a port (gsi_register_class) or joined the class
// (gsi_join_class). The adapter keeps the object as long as the machine lives. A call with the handle of an ended
// registration therefore returns an error.
struct gsi_class_t {
    stack::gsi_adapter& adapter;
    const uint8_t port;
    const uint8_t mgt_class;
    const uint8_t class_ver;
    const gsi_completion_fn_t send_callback;
    const gsi_completion_fn_t receive_callback;
    void* const context;
    uint8_t number = 0; // 1 to 127 for a client that has joined the class; 0 if it has registered the class

    static constexpr uint32_t end_mark = 0x80000000;
    // The number of datagrams that were posted or have arrived and whose callback has not returned. When the
    // registration has ended, end_mark is set.
    std::atomic<uint32_t> in_flight{0};

    // Counts a datagram that the client posts or that has arrived for it. Returns false if the registration has ended.
    // Any thread.
    bool enter()
    {
        if (!(exec::fetch_add(in_flight, 1, std::memory_order_acquire) & end_mark)) return true;
        leave();
        return false;
    }

    // Undoes enter(). Call it when the callback of the datagram has returned, or when its post has failed. Any thread.
    void leave() { exec::fetch_add(in_flight, UINT32_MAX, std::memory_order_release); } // adds -1

    // Ends the registration. Returns false, and does nothing, if a datagram is in flight or if the registration has
    // already ended. Any thread.
    bool end()
    {
        uint32_t count = 0;
        return exec::compare_exchange(in_flight, count, end_mark, std::memory_order_acq_rel);
    }
    bool has_ended() const { return in_flight.load(std::memory_order_relaxed) & end_mark; }
};

namespace stack
{

class gsi_adapter final : public fabric::listener
{
  public:
    // Starts the completion task. `last_transaction_id` is the counter that all HCAs of the host share. Throws
    // exec::shortage if the task cannot be created, or std::bad_alloc.
    gsi_adapter(kernel::machine& home, fabric::hca& adapter, std::atomic<uint64_t>& last_transaction_id);

    // Ends the process (exec::panic) if a class is still registered, or if a client has not put back a received
    // datagram.
    ~gsi_adapter();

    // gsi.h describes these calls and their results. register_class() and join_class() store `*handle` before the first
    // callback.
    int register_class(std::unique_ptr<gsi_class_t> client, gsi_class_handle_t* handle);
    int join_class(std::unique_ptr<gsi_class_t> client, gsi_class_handle_t* handle);
    int deregister(gsi_class_t& client);
    int post(gsi_class_t& client, datagram_record& record, uint64_t* transaction_id);

    const fabric::hca& hca() const { return hca_; }
    gsi_counts counts() const;
    sa_counts sa_traffic_counts() const { return sa_traffic_.counts(); }
    const std::string& context_name() const { return context_name_; }

    // Returns the number of the batch that the completion context processes now, or 0 if no task runs the context. A
    // batch is everything that the context took from the queue at one time. Any thread.
    uint64_t batch_in_work() const;

    const stack::registrations& registrations() const { return registrations_; }

    // Describes the classes that a module has not deregistered, one text for each.
    std::vector<std::string> left_by(const kernel::module_code& module) const;

    void mad_arrived(int port, const fabric::address& source, const fabric::mad_bytes& mad) override;
    void may_complete(bool again) override;
    void port_changed(int, fabric::port_change, uint16_t) override {}

  private:
    struct counters {
        std::atomic<uint64_t> posted{0}, refused{0}, completed{0}, delivered{0};
        std::atomic<uint64_t> dropped_no_response{0}, dropped_no_class{0}, dropped_no_asker{0}, dropped_no_datagram{0};
    };

    // The caller holds mutex_. `number` is gsi_class_t::number.
    gsi_class_t* find(int port, uint8_t mgt_class, uint8_t number) const;
    uint8_t free_number(const gsi_class_t& client) const;

    void add(std::unique_ptr<gsi_class_t> client, gsi_class_handle_t* handle, std::unique_lock<exec::brief_lock>& lock);
    uint64_t new_transaction_id(const gsi_class_t& client, const gsi_dtgrm_t& datagram);
    bool put_on_wire(int port, gsi_dtgrm_t& datagram, uint64_t transaction_id);
    void queue(datagram_record& record, std::unique_lock<exec::brief_lock>& lock, bool may_be_deferred);

    // The completion context. The datagrams of a batch are linked by datagram_record::next.
    bool complete();
    datagram_record* first_batch();
    datagram_record* next_batch();
    datagram_record* take_queue(); // the caller holds mutex_
    void call_clients(datagram_record* batch);
    void call_client(datagram_record& record, uint64_t now_ticks);

    kernel::machine& home_;
    fabric::hca& hca_;
    hca_hub& hub_;
    std::atomic<uint64_t>& last_transaction_id_;
    const std::string context_name_;
    counters counters_;
    stack::registrations registrations_;
    sa_traffic sa_traffic_;
    const std::unique_ptr<datagram_pool> receive_pool_;

    mutable exec::brief_lock mutex_; // guards the members below, except the task; not held during callbacks
    std::vector<std::unique_ptr<gsi_class_t>> classes_; // all registrations, also those that have ended
    std::vector<gsi_class_t*> registered_classes_;
    datagram_record* queue_head_ = nullptr;
    datagram_record* queue_tail_ = nullptr;
    bool is_completing_ = false;  // a task runs the completion context; before it leaves, it takes the queue once more
    uint64_t batch_number_ = 0;   // number of the latest batch
    bool will_be_called_ = false; // the fabric has announced another may_complete()
    service_task task_;
};

} // namespace stack
