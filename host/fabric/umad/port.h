// One real port. It sends and receives MADs, and watches its own state. Each port has a task. The task receives,
// regularly asks the port for its attributes, and reports datagrams and changes to the HCA's listener. While answers
// keep coming, another task that waits for them may receive instead (fabric::hca::poll).
//
// This diagram shows which task receives:
//
//      +------------+   a datagram arrives    +------------+   poll() by another task   +-----------------+
//      |   quiet    | ----------------------> |    busy    | -------------------------> |     polled      |
//      |            |                         |            |                            |                 |
//      | the port's |   nothing has arrived   | the port's |   no poll() for a tick     | the other task; |
//      | task waits | <---------------------- | task       | <------------------------- | the port's task |
//      |            |                         | receives   |                            | sleeps a tick   |
//      +------------+                         +------------+                            +-----------------+
//            ^                       poll() finds nothing, wakes the port's task                 |
//            +-----------------------------------------------------------------------------------+
//
// is_busy_ is true in the states busy and polled. poll() sets is_polled_; the port's task clears it before it sleeps a
// tick. No other task polls for the answer to a Set, or for the port's attributes. Therefore such a request wakes the
// port's task and ends the state polled at once.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>

#include "host/fabric/umad/device.h"
#include "host/fabric/umad/fabric-context.h"
#include "host/fabric/umad/port-watch.h"
#include "host/fabric/umad/registered-p-keys.h"
#include "host/fabric/umad/sa-remarks.h"
#include "host/fabric/umad/transactions.h"

namespace umad
{

datagram_counts operator+(const datagram_counts& a, const datagram_counts& b);

// The calls with which one port reaches the listener of its HCA (see fabric::listener).
struct port_events {
    std::function<void(const fabric::address& source, const fabric::mad_bytes& mad)> mad_arrived;
    std::function<void(bool again)> may_complete;
    std::function<void(fabric::port_change change, uint16_t sm_lid)> port_changed;
};

class port
{
  public:
    // `context` and `p_keys` must outlive the port. The destructor ends the port's task, and may sleep.
    port(fabric_context& context, registered_p_keys& p_keys, const std::string& hca, int number, port_events events);
    ~port();
    port(const port&) = delete;
    port& operator=(const port&) = delete;

    // Opens the port and waits at most one second for its attributes. Fails if the port cannot be opened. Call open()
    // once, before start().
    ats::result<> open();

    // Starts the port's task. Throws exec::shortage if the task cannot be created.
    void start();

    // These functions implement fabric::hca::send and fabric::hca::poll for one port. Any thread.
    bool send(const fabric::address& destination, const fabric::mad_bytes& mad);
    bool poll();

    // Asks the port at once for its attributes. Call it when the port has probably changed. With `must_register`, the
    // host then registers again, even if nothing has changed. Any thread.
    void look_now(bool must_register);

    // Sets the interval in which the port is asked for its attributes. Any thread.
    void set_watch_interval(uint64_t ticks);

    // The port's task, for a watchdog. Call start() before.
    fabric::fabric_task watched_task();

    // The attributes that the port has reported last, but with the state `down` if the port is silent or the device is
    // gone. Any thread; does not wait for the port.
    fabric::port_attributes read() const;
    datagram_counts counts() const;

  private:
    void receive_in_own_task();

    // Called by the port's task.
    void run();
    void check_port();
    void leave_to_poller();
    void wait_and_receive();
    void drain();

    // The caller of these functions holds receive_mutex_. Only open() calls them without it: no other task knows the
    // port then.
    bool receive_next();
    bool receive_one();
    void handle_self_answer(device::packet& packet);
    void handle_sa_answer(device::packet& packet);
    void handle_returned(device::packet& packet);
    void deliver(device::packet& packet);
    void update_state(uint64_t now_ticks);
    void read_state_files(uint64_t now_ticks);
    void ask_next(uint64_t now_ticks);
    void ask(const fabric::mad_bytes& question);
    void set_attributes(const fabric::port_attributes& attributes, port_condition condition);
    void set_link_down(port_condition condition);
    void close_lost_device();
    void check_sa_silence(uint64_t now_ticks);

    void report(const std::string& text) const;
    void report_once(std::atomic<bool>& is_reported, const char* text) const;

    fabric_context& context_;
    const std::string hca_;
    const int number_;
    const std::string name_; // "mlx5_0 port 1"
    const port_events events_;

    device device_;
    registered_p_keys& p_keys_;
    transactions transactions_;
    mutable std::mutex attributes_mutex_;
    fabric::port_attributes attributes_; // guarded by attributes_mutex_
    std::atomic<uint16_t> lid_{0};       // a copy of attributes_.lid that is read without a lock

    struct {
        std::atomic<uint64_t> sent{0}, refused{0}, arrived{0}, timed_out{0}, too_short{0}, strays{0},
            deletes_completed{0};
    } counts_;
    std::atomic<bool> is_refusal_reported_{false}, is_short_reported_{false}, is_stray_reported_{false};
    std::atomic<uint32_t> unanswered_requests_{0};   // requests since the last answer
    std::atomic<uint64_t> first_unanswered_tick_{0}; // the tick at which the first of them was sent

    // A task holds this while it receives from the port or asks it. The lock guards the members down to is_sa_silent_,
    // the device (except for send(), wait() and wake()), and every change of is_busy_.
    std::mutex receive_mutex_;
    port_watch watch_;
    sa_remarks remarks_;
    port_condition condition_ = port_condition::unknown;
    std::string reported_state_;
    bool reads_files_ = false; // the port does not answer questions: read its attributes from the system's files
    bool is_sa_silent_ = false;

    std::atomic<bool> must_register_{false}; // the host must register when the port reports its attributes next
    std::atomic<uint64_t> check_due_{0};     // the tick of the next check_port()
    std::atomic<bool> is_busy_{false};       // a datagram has just arrived, and more may follow
    std::atomic<bool> is_polled_{false};     // another task has called poll() since the port's task last slept
    std::atomic<bool> is_stopping_{false};
    std::atomic<uint64_t> rounds_{0}; // rounds of the task's loop
    exec::task* task_ = nullptr;
};

} // namespace umad
