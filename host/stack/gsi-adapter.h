// The GSI layer of one HCA. Datagrams that were sent and datagrams that arrived stand in one queue, in the order in
// which that happened; the HCA's completion context takes all that is there at a time and hands it out one by one. It
// is one context, whoever runs it: a task of its own, or one that the fabric has at hand when answers have come in.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "host/stack/datagram-pool.h"
#include "host/stack/hca-hub.h"
#include "host/stack/registrations.h"
#include "host/stack/service-task.h"

namespace stack
{

class gsi_adapter;

struct gsi_counts {
    uint64_t posted = 0;
    uint64_t refused = 0; // posts that failed
    uint64_t completed = 0;
    uint64_t delivered = 0;
    uint64_t dropped_no_response = 0; // arrived without the R bit: a request, which nobody here serves
    uint64_t dropped_no_class = 0;    // arrived for a class that is not registered on the port
    uint64_t dropped_no_datagram = 0; // arrived while the receive pool was empty
};

} // namespace stack

// A registration. The record stays until its machine goes, so that a stale handle is told from a good one.
struct gsi_class_t {
    stack::gsi_adapter& adapter;
    const uint8_t port;
    const uint8_t mgt_class;
    const uint8_t class_ver;
    const gsi_completion_fn_t sent;
    const gsi_completion_fn_t received;
    void* const context;

    static constexpr uint32_t ended = 0x80000000;
    std::atomic<uint32_t> in_flight{0}; // datagrams posted or arrived whose callback has not returned; or `ended`

    // Counts a datagram in. False: the registration has ended.
    bool enter()
    {
        if (!(in_flight.fetch_add(1, std::memory_order_acquire) & ended)) return true;
        leave();
        return false;
    }
    void leave() { in_flight.fetch_sub(1, std::memory_order_release); }

    // Ends the registration, unless datagrams are counted in.
    bool end()
    {
        uint32_t none = 0;
        return in_flight.compare_exchange_strong(none, ended, std::memory_order_acq_rel);
    }
    bool has_ended() const { return in_flight.load(std::memory_order_relaxed) & ended; }
};

namespace stack
{

class gsi_adapter final : public fabric::listener
{
  public:
    // `last_transaction_id` is the host's. Starts the completion task; throws a shortage when there is no room for it.
    gsi_adapter(kernel::machine& home, fabric::hca& adapter, std::atomic<uint64_t>& last_transaction_id);

    // A class that is still registered is a hard error, and so is a received datagram that was not put back.
    ~gsi_adapter();

    // gsi.h tells about these; they return what it says. `*handle` is stored before the first callback.
    int register_class(std::unique_ptr<gsi_class_t> client, gsi_class_handle_t* handle);
    int deregister(gsi_class_t& ending);
    int post(gsi_class_t& sender, datagram_record& record, uint64_t* transaction_id);

    const fabric::hca& hca() const { return hca_; }
    gsi_counts counts() const;
    const stack::registrations& registrations() const { return registrations_; }

    // The classes that a module has left registered.
    std::vector<std::string> left_by(const kernel::module_code& leaving) const;

    void mad_arrived(int port, const fabric::address& source, const fabric::mad_bytes& mad) override;
    void may_complete(bool again) override;
    void port_changed(int, fabric::port_change, uint16_t) override {}

  private:
    struct counters {
        std::atomic<uint64_t> posted{0}, refused{0}, completed{0}, delivered{0};
        std::atomic<uint64_t> dropped_no_response{0}, dropped_no_class{0}, dropped_no_datagram{0};
    };
    using lock_guard = std::unique_lock<std::mutex>;

    gsi_class_t* find(int port, uint8_t mgt_class) const;
    bool put_on_wire(int port, gsi_dtgrm_t& datagram, uint64_t transaction_id);
    void queue(datagram_record& record, lock_guard& lock, bool may_be_deferred);

    // The completion context.
    bool complete();
    datagram_record* take_all(bool goes_on);
    void hand_out(datagram_record& record, uint64_t now_ticks);

    kernel::machine& home_;
    fabric::hca& hca_;
    hca_hub& hub_;
    std::atomic<uint64_t>& last_transaction_id_;
    const std::string context_name_;
    counters counters_;
    stack::registrations registrations_;
    const std::unique_ptr<datagram_pool> receive_pool_;

    mutable std::mutex mutex_;                          // guards the rest, but for the task
    std::vector<std::unique_ptr<gsi_class_t>> classes_; // those that have ended too
    std::vector<gsi_class_t*> registered_;
    datagram_record* first_ = nullptr;
    datagram_record* last_ = nullptr;
    bool completing_ = false;     // somebody runs the completion context, and will look into the queue once more
    bool will_be_called_ = false; // the fabric will call may_complete() again
    service_task task_;
};

} // namespace stack
