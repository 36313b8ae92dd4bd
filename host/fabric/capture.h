// A capture file of what crosses a fabric boundary, for Wireshark and tshark. It is a pcap file of link type 197
// (ERF); each record, of ERF type 21, is an InfiniBand packet with the datagram in it. The headers around the
// datagram say what the boundary knows: the default P_Key stands for the P_Key index, and packets count up from 0.
#pragma once

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

#include "host/fabric/fabric.h"

namespace fabric
{

class capture final : public tap
{
  public:
    // Opens the file, in place of one that is there, and writes its header. Tick 0 is shown as `start_unix_ms`.
    explicit capture(std::string path, uint64_t start_unix_ms = 0);

    // Closes; what goes wrong now goes unsaid, so call close() before.
    ~capture();
    capture(const capture&) = delete;
    capture& operator=(const capture&) = delete;

    // Adds a packet. After a failure nothing more is written. Any thread; blocks no longer than a file write.
    void crossed(uint64_t now_ticks, uint16_t source_lid, const address& destination, const mad_bytes& mad) override;

    // Empty while all is well; else one line about the first failure. Any thread. close() and flush() write out
    // what is still buffered first; after close() nothing is added.
    std::string failure() const;
    std::string flush();
    std::string close();

    uint64_t packets() const; // written so far

  private:
    void write(const void* bytes, size_t size);
    void note_failure();

    const std::string path_;
    const uint64_t start_unix_ms_;
    mutable std::mutex mutex_; // all below
    std::FILE* file_;
    std::string failure_;
    uint64_t packets_ = 0;
};

} // namespace fabric
