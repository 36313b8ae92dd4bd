// One port as libibumad opens it: the umad calls, and what their results mean. Two clients are registered on it, one
// for the SA and one for the port's own answers to self_query.
#pragma once

#include <atomic>
#include <mutex>
#include <string>

#include "host/fabric/fabric.h"
#include "host/fabric/umad/libibumad.h"
#include "sa-mads.h"

namespace umad
{

static_assert(sizeof(sa_mad_v2_t) == sizeof(fabric::mad_bytes));

class device
{
  public:
    enum class client { sa, self };

    // What receive() found. `returned`: a request that got no answer, with as much of it as libibumad cares to give
    // back. `gone`: the device can be used no more, and must be closed.
    enum class outcome { nothing, datagram, returned, gone };

    // A datagram with the header of libibumad in front, so that it is copied on neither side of a system call.
    class packet
    {
      public:
        fabric::mad_bytes& mad() { return *static_cast<fabric::mad_bytes*>(umad_get_mad(bytes_)); }
        sa_mad_v2_t& sa_mad() { return reinterpret_cast<sa_mad_v2_t&>(mad()); }
        ib_mad_addr_t& address() { return *umad_get_mad_addr(bytes_); }
        void* bytes() { return bytes_; }

        client to = client::sa; // of a received one: whose it is
        int length = 0;         // of a received one: bytes of the MAD that came; the rest are zero

      private:
        alignas(ib_user_mad_t) unsigned char bytes_[sizeof(ib_user_mad_t) + sizeof(fabric::mad_bytes)] = {};
    };

    device(std::string hca, int port);
    ~device();
    device(const device&) = delete;
    device& operator=(const device&) = delete;

    // Empty, or what is in the way and what to do about it. These are not called while another thread receives.
    std::string open();
    void close();
    bool is_open() const { return descriptor_ >= 0; }
    bool has_self_client() const { return self_agent_ >= 0; }

    // False: libibumad did not take it. The packet's address is the caller's to fill in. Any thread.
    bool send(client from, packet& leaving);

    // Waits until there is something to receive, or for `longest_ms`, or until wake(); may return early. Any thread.
    void wait(uint64_t longest_ms);

    // Does not wait. One thread at a time.
    outcome receive(packet& arrived);

    // Ends the wait, or the next one. Any thread.
    void wake();

  private:
    int register_client(uint8_t mgt_class, uint8_t class_version);
    void close_port();

    const std::string hca_;
    const int port_;
    const int wakeup_; // an eventfd
    std::atomic<bool> sees_wakeup_{true};
    std::atomic<bool> is_broken_{false}; // poll said so
    std::mutex sending_;                 // held to send, and to change what a sender uses
    int descriptor_ = -1;
    std::atomic<int> poll_descriptor_{-1};
    int sa_agent_ = -1, self_agent_ = -1;
};

// The file behind a port, "" if it has none.
std::string device_file(const std::string& hca, int port);

// What is in the way when libibumad does not open a port, given errno, and what to do about it.
std::string why_not_opened(const std::string& hca, int port, int reason);

} // namespace umad
