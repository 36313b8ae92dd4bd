// Sees every datagram as it crosses between a host and the fabric: what a host sends must be one of the service's four
// requests, to the letter, and true as far as the wire can tell.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/exec/task.h"
#include "host/fabric/capture.h"
#include "sa-mads.h"

namespace campaign
{

struct arena;
struct node;

class wire_watch final : public fabric::tap
{
  public:
    explicit wire_watch(arena& in) : in_(in) {}

    // Every host has its HCAs: learns which port has which LID. `capture_path` may be empty.
    void begin(const std::string& capture_path);

    // Writes out what is captured. Empty, or why it is not whole.
    ats::result<> flush_capture() { return capture_ ? capture_->flush() : ats::result<>(); }

    // How many requests the calling task has sent so far.
    uint64_t sent_by_this_task() const;

    void crossed(uint64_t now_ticks, uint16_t source_lid, const fabric::address& destination,
                 const fabric::mad_bytes& mad) override;

  private:
    struct sender {
        size_t host;
        size_t hca;
        int port;
        fabric::gid_bytes gid;
        uint16_t p_key;
    };
    std::string fault_in(const sender& from, const sa_mad_v2_t& mad, const ib_service_record_v2_t& record) const;

    std::string delay_in(node& host, uint8_t method, uint64_t now_ticks);

    arena& in_;
    std::map<const exec::task*, uint64_t> requests_;      // how many each task has sent
    std::map<const exec::task*, uint64_t> deleted_ticks_; // when each task sent its last delete
    std::vector<sender> by_lid_;
    std::unique_ptr<fabric::capture> capture_;
};

} // namespace campaign
