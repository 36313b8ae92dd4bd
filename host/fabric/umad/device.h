// One port that is opened through libibumad. This class makes the umad calls and interprets their results. It registers
// two clients: `sa` exchanges MADs with the SA, and `self` exchanges the MADs of self_query with the port itself.
#pragma once

#include <atomic>
#include <mutex>
#include <string>

#include "host/fabric/fabric.h"
#include "host/fabric/umad/libibumad.h"
#include "host/result.h"
#include "sa-mads.h"

namespace umad
{

static_assert(sizeof(sa_mad_v2_t) == sizeof(fabric::mad_bytes));

class device
{
  public:
    enum class client { sa, self };

    // The result of receive(). `returned`: the kernel returns a request that got no answer, perhaps only the first
    // bytes of the request. `gone`: the device cannot be used any more and must be closed.
    enum class arrival { nothing, datagram, returned, gone };

    // A datagram with libibumad's header in front. libibumad sends from this buffer and receives into it.
    class packet
    {
      public:
        fabric::mad_bytes& mad() { return *static_cast<fabric::mad_bytes*>(umad_get_mad(bytes_)); }
        sa_mad_v2_t& sa_mad() { return reinterpret_cast<sa_mad_v2_t&>(mad()); }
        ib_mad_addr_t& address() { return *umad_get_mad_addr(bytes_); }
        void* bytes() { return bytes_; }

        // Valid only in a received packet.
        client receiver = client::sa;
        int length = 0; // number of MAD bytes that arrived; the other bytes are zero

      private:
        alignas(ib_user_mad_t) unsigned char bytes_[sizeof(ib_user_mad_t) + sizeof(fabric::mad_bytes)] = {};
    };

    device(std::string hca, int port);
    ~device();
    device(const device&) = delete;
    device& operator=(const device&) = delete;

    // Opens the port and registers both clients. Succeeds without the `self` client if the port does not accept it (see
    // has_self_client). The error is one line for people. Do not call open() or close() while another thread receives.
    ats::result<> open();
    void close();
    bool is_open() const { return descriptor_ >= 0; }
    bool has_self_client() const { return self_agent_ >= 0; }

    // Sends the packet to the address that the caller has written into it. Returns false if the device is closed, if it
    // has no client `sender`, or if libibumad does not accept the packet. Any thread.
    bool send(client sender, packet& packet);

    // Waits until a datagram is ready or wake() is called, at most for `limit_ms`. May return early. Any thread.
    void wait(uint64_t limit_ms);

    // Receives one datagram if one is ready; does not wait. One thread at a time.
    arrival receive(packet& packet);

    // Ends a wait(). If no thread waits now, ends the next wait(). Has no effect under ibsim, so every wait() is short
    // there. Any thread.
    void wake();

  private:
    int register_client(uint8_t mgt_class, uint8_t class_version);
    void close_port();

    const std::string hca_;
    const int port_;
    const int wakeup_;                    // an eventfd
    std::atomic<bool> sees_wakeup_{true}; // wake() can end a wait()
    std::atomic<bool> is_broken_{false};  // poll() reported an error on the device
    std::mutex send_mutex_;               // held to send, and to change descriptor_ and the agents
    int descriptor_ = -1;
    std::atomic<int> poll_descriptor_{-1};
    int sa_agent_ = -1, self_agent_ = -1;
};

// The file through which libibumad reaches a port, or "" if the port has no such file.
std::string device_file(const std::string& hca, int port);

// One line for people about a port that libibumad cannot open: the cause, and often what to do. `error_number` is the
// errno.
std::string open_error_text(const std::string& hca, int port, int error_number);

} // namespace umad
