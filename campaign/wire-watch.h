// Checks every datagram that a host sends. It must be one of the four requests of the module ats, or IBAT's request for
// a path. Its header, component mask and record must be correct. Without disturbances, the P_Key and the GID of a Set
// must be those of the port that sends the Set, and the Set must follow its Delete in the same tick.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "campaign/mismatch.h"
#include "host/exec/task.h"
#include "host/fabric/capture.h"
#include "sa-mads.h"

namespace campaign
{

struct tested_fabric;
struct node;

class wire_watch final : public fabric::tap
{
  public:
    explicit wire_watch(tested_fabric& fabric) : fabric_(fabric) {}

    // Notes the LIDs of the hosts' ports and opens the capture file. Call begin() once, when all hosts have their HCAs.
    // If the path is empty, nothing is captured.
    void begin(const std::string& capture_path);

    // Writes the buffered packets to the capture file. Returns the first error of the file.
    ats::result<> flush_capture() { return capture_ ? capture_->flush() : ats::result<>(); }

    // Returns the number of requests that the calling task has sent so far.
    uint64_t requests_of_this_task() const;

    // For a request, the task that sends it calls crossed().
    void crossed(uint64_t now_ticks, uint16_t source_lid, const fabric::address& destination,
                 const fabric::mad_bytes& bytes) override;

  private:
    struct port_entry {
        size_t node;
        size_t hca;
        int port;
        fabric::gid_bytes gid;
        uint16_t p_key;
    };

    // The functions that return a found_fault check a request. If the request has no fault, the text of the found_fault
    // is empty.
    found_fault fault_in_path_request(const port_entry& sender, const sa_mad_v2_t& mad) const;
    found_fault fault_in(const port_entry& sender, const sa_mad_v2_t& mad, const ib_service_record_v2_t& record) const;
    found_fault fault_in_set(const port_entry& sender, const sa_mad_v2_t& mad,
                             const ib_service_record_v2_t& record) const;
    found_fault timing_fault_in(node& node, size_t hca, uint8_t method, uint64_t now_ticks);
    void report(node& node, const found_fault& fault); // ends the run with this fault

    tested_fabric& fabric_;
    std::map<const exec::task*, uint64_t> requests_;     // number of requests of each task
    std::map<const exec::task*, uint64_t> delete_ticks_; // when each task sent its last Delete
    std::vector<port_entry> ports_by_lid_;               // the first port has LID 2, the second one LID 3, and so on
    std::unique_ptr<fabric::capture> capture_;
};

} // namespace campaign
