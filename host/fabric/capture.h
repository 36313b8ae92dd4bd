// Writes datagrams that hosts send and receive to a capture file for Wireshark and tshark. Datagrams that a fabric
// drops itself are missing, for example late answers at a real port, or sends from a port that is down. The file is a
// pcap file of link type 197 (ERF). Each record has ERF type 21, and contains an InfiniBand packet with the datagram.
// The capture does not know some fields of the packet header: it writes the default P_Key for any P_Key index. The
// packet sequence number is the number of the packet in the file, from 0.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>

#include "host/fabric/fabric.h"
#include "host/result.h"

namespace fabric
{

class capture final : public tap
{
  public:
    // Opens the file with open_output_file(), and writes its header. If this fails, status() returns the error.
    // `start_unix_ms` is the time of tick 0, in milliseconds since 1970. If a packet cannot be written, crossed() calls
    // `report` (or null) once with the reason. The call comes from any thread and under a lock, so `report` must
    // neither wait nor call the capture.
    using report_t = std::function<void(const std::string& reason)>;
    explicit capture(std::string path, uint64_t start_unix_ms = 0, report_t report = {});

    // Closes the file. If that fails, the error is lost. To get the error, call close() first.
    ~capture();
    capture(const capture&) = delete;
    capture& operator=(const capture&) = delete;

    // Adds a packet. After a failure, does nothing. Any thread; waits only for the lock and for the file write.
    void crossed(uint64_t now_ticks, uint16_t source_lid, const address& destination, const mad_bytes& mad) override;

    // status(), flush() and close() return the first failure so far. flush() and close() first write the buffered
    // packets. After close(), crossed() does nothing. Any thread.
    ats::result<> status() const;
    ats::result<> flush();
    ats::result<> close();

    uint64_t packets() const; // packets written so far

  private:
    void write(const void* bytes, size_t size);
    void note_failure(const std::string& reason);

    const std::string path_;
    const uint64_t start_unix_ms_;
    const report_t report_;
    mutable std::mutex mutex_;  // guards the following members
    std::FILE* file_ = nullptr; // null after close(), and if the file could not be opened
    ats::result<> status_;
    uint64_t packets_ = 0;
};

} // namespace fabric
