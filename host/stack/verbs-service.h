// The verbs service of a machine: its open HCAs. A handle is a number that is never reused, so a stale handle is
// detected.
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

    // A hard error if an HCA was not closed.
    ~verbs() override;

    // Opens an HCA. `opener` is the address of the calling code. Returns null if the machine has no HCA with that name.
    kq_hca_h_t open(const char* name_in_stack, const void* opener);

    // The events of a plugged HCA. The first call starts the task that delivers them. It throws a shortage if the task
    // cannot be created.
    hca_events& events_of(fabric::hca& adapter);

    // The events of an open HCA, which live as long as the machine. Returns null for a handle that is stale or was
    // never valid.
    hca_events* find(kq_hca_h_t handle) const;

    // Returns kq_return_ok, kq_return_err_invalid_hca, or kq_return_err_busy if the handle has a subscription.
    kq_return_t close(kq_hca_h_t handle);

    std::vector<std::string> left_by(const kernel::module_code& module) const override;

    // Returns true at the first call. A list that is too short for all HCAs is logged only once.
    bool should_report_cut() { return !is_cut_reported_.exchange(true); }

  private:
    struct open_hca {
        hca_events* events;
        const void* opener;
    };
    kernel::machine& home_;
    mutable std::mutex mutex_;
    std::map<fabric::hca*, std::unique_ptr<hca_events>> events_; // for each HCA
    std::map<kq_hca_h_t, open_hca> open_hcas_;
    uintptr_t last_handle_ = 0;
    std::atomic<bool> is_cut_reported_{false};
};

} // namespace stack
