// One real port: what leaves and arrives through it, and what is known of it. A task of the port receives, asks the
// port for its attributes in intervals, and tells the HCA's listener of both. While answers keep coming, a task that
// waits for them may receive in its place.
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

traffic_counts operator+(const traffic_counts& a, const traffic_counts& b);

// What a port does to its HCA.
struct port_events {
    std::function<void(const fabric::address& source, const fabric::mad_bytes& mad)> arrived;
    std::function<void(bool again)> may_complete;
    std::function<void(fabric::port_change change, uint16_t sm_lid)> changed;
};

class port
{
  public:
    port(surroundings& around, own_records& records, const std::string& hca, int number, port_events events);
    ~port();
    port(const port&) = delete;
    port& operator=(const port&) = delete;

    // Opens the port and waits, for a second at the most, until it has told its attributes. Empty, or why it cannot be
    // opened. Before start().
    std::string open();
    void start();

    // Any thread.
    bool send(const fabric::address& destination, const fabric::mad_bytes& mad);
    bool poll(); // as of fabric::hca
    fabric::port_attributes read() const;
    traffic_counts counts() const;

  private:
    // The port's task.
    void run();
    void watch();
    void stand_back();
    void receive();
    void drain();

    // Whoever has `receiving_`; open(), before anybody needs it. False: nothing came, or nothing for the listener.
    bool take_in();
    bool receive_one();
    void take(device::packet& arrived);
    void deliver(device::packet& arrived);
    void take_returned(device::packet& arrived);
    void look(uint64_t now_ticks);
    void ask(const fabric::mad_bytes& question);
    void learn(const fabric::port_attributes& now, port_condition condition);
    void learn_down(port_condition condition);
    void lose_device();
    void watch_sa(uint64_t now_ticks);

    void say(const std::string& text) const;
    void say_once(std::atomic<bool>& said, const char* text) const;

    surroundings& around_;
    const std::string hca_;
    const int number_;
    const std::string called_; // "mlx5_0 port 1"
    const port_events events_;

    device device_;
    own_records& records_;
    transactions under_way_;
    mutable std::mutex mutex_; // guards known_
    fabric::port_attributes known_;
    std::atomic<uint16_t> lid_{0}; // of known_, for every datagram

    struct {
        std::atomic<uint64_t> sent{0}, refused{0}, arrived{0}, timed_out{0}, too_short{0}, strays{0}, completed{0};
    } counts_;
    std::atomic<bool> said_refused_{false}, said_short_{false}, said_stray_{false};
    std::atomic<uint32_t> sent_since_answer_{0};
    std::atomic<uint64_t> waiting_since_tick_{0};

    // Held by whoever takes in what arrives or looks at the port. Guards the device but for its sends, the next six,
    // and every change of is_busy_.
    std::mutex receiving_;
    port_watch watch_;
    sa_remarks remarks_;
    port_condition condition_ = port_condition::unknown;
    std::string said_state_;
    bool reads_files_ = false; // the port does not tell its attributes, the system's files do
    bool sa_is_silent_ = false;

    std::atomic<uint64_t> look_due_{0};  // the tick
    std::atomic<bool> is_busy_{false};   // something arrived just now, and more may follow
    std::atomic<bool> is_polled_{false}; // by a task in whose favour the port's stands back
    std::atomic<bool> stopping_{false};
    exec::task* task_ = nullptr;
};

} // namespace umad
