// The verbs service of a machine: its open HCAs and their events. A handle is a number that is never used again, so the
// service detects a handle of a closed HCA.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>

#include "host/stack/hca-events.h"

namespace stack
{

class verbs final : public kernel::service
{
  public:
    explicit verbs(kernel::machine& home);

    // Ends the process (exec::panic) if an HCA was not closed.
    ~verbs() override;

    // Opens an HCA. `opener` is an address in the caller's code, for left_by(). Returns null if the machine has no HCA
    // with that name.
    kq_hca_h_t open(const char* name_for_modules, const void* opener);

    // Returns the events of an HCA of this machine. The first call for an HCA starts the task that delivers its events,
    // and throws exec::shortage if the task cannot be created.
    hca_events& events_of(fabric::hca& adapter);

    // Returns the events of an open HCA, or null if the handle is not open. The object lives as long as the machine.
    hca_events* find(kq_hca_h_t handle) const;

    // Closes an HCA. Returns kq_return_ok, kq_return_err_invalid_hca if the handle is not open, or kq_return_err_busy
    // if the handle has a subscription.
    kq_return_t close(kq_hca_h_t handle);

    std::vector<std::string> left_by(const kernel::module_code& module) const override;

    // Returns true at the first call only. kq_list_hcas() uses it to log only once that a caller's list was too short.
    bool is_first_short_list() { return !is_cut_reported_.exchange(true); }

  private:
    struct open_hca {
        hca_events* events;
        const void* opener;
    };
    kernel::machine& home_;
    mutable std::mutex mutex_;                                   // guards the members below, except is_cut_reported_
    std::map<fabric::hca*, std::unique_ptr<hca_events>> events_; // one for each HCA that events_of() was called for
    std::map<kq_hca_h_t, open_hca> open_hcas_;
    uintptr_t last_handle_ = 0;
    std::atomic<bool> is_cut_reported_{false};
};

} // namespace stack
