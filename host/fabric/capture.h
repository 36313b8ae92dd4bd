// Writes every datagram that crosses a fabric boundary to a capture file for Wireshark and tshark. It is a pcap file of
// link type 197 (ERF). Each record, of ERF type 21, is an InfiniBand packet with the datagram inside. Some header
// fields are unknown at the boundary: the capture writes the default P_Key for any P_Key index, and numbers the packets
// from 0.
#pragma once

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

#include "host/fabric/fabric.h"
#include "host/result.h"

namespace fabric
{

class capture final : public tap
{
  public:
    // Opens the file, replacing an existing one, and writes its header. status() reports a failure. Timestamps count
    // from `start_unix_ms`, which is tick 0.
    explicit capture(std::string path, uint64_t start_unix_ms = 0);

    // Closes the file. Its errors are lost; to see them, call close() first.
    ~capture();
    capture(const capture&) = delete;
    capture& operator=(const capture&) = delete;

    // Adds a packet. After a failure nothing more is written. Any thread; blocks only for a file write.
    void crossed(uint64_t now_ticks, uint16_t source_lid, const address& destination, const mad_bytes& mad) override;

    // These functions return the first failure so far. flush() and close() first write the buffered packets. After
    // close() nothing is added. Any thread.
    ats::result<> status() const;
    ats::result<> flush();
    ats::result<> close();

    uint64_t packets() const; // packets written so far

  private:
    void write(const void* bytes, size_t size);
    void note_failure();

    const std::string path_;
    const uint64_t start_unix_ms_;
    mutable std::mutex mutex_; // guards the following members
    std::FILE* file_;
    ats::result<> status_;
    uint64_t packets_ = 0;
};

} // namespace fabric
