// The verbs service of a machine: its open HCAs. A handle is a number that is never used twice, so that a stale handle
// is recognised.
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

    // An HCA that was not closed is a hard error.
    ~verbs() override;

    // Opens an HCA. `opener` is the address of the calling code. Null: the machine has no HCA of that name.
    kq_hca_h_t open(const char* name_in_stack, const void* opener);

    // The events of a plugged HCA. The first call starts the task that delivers them, and throws a shortage when there
    // is no room for it.
    hca_events& events_of(fabric::hca& adapter);

    // The events of an open HCA; they live as long as the machine. Null: the handle is stale, or never was one.
    hca_events* find(kq_hca_h_t handle) const;

    // kq_return_ok, kq_return_err_invalid_hca, or kq_return_err_busy: the handle is subscribed to events.
    kq_return_t close(kq_hca_h_t handle);

    std::vector<std::string> left_by(const kernel::module_code& module) const override;

    // True at the first call: a list of HCAs that has no room for all is logged once.
    bool should_report_cut() { return !is_cut_reported_.exchange(true); }

  private:
    struct open_hca {
        hca_events* events;
        const void* opener;
    };
    kernel::machine& home_;
    mutable std::mutex mutex_;
    std::map<fabric::hca*, std::unique_ptr<hca_events>> events_; // of each HCA
    std::map<kq_hca_h_t, open_hca> open_;
    uintptr_t last_handle_ = 0;
    std::atomic<bool> is_cut_reported_{false};
};

} // namespace stack
