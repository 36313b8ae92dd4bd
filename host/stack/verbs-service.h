// The verbs service of a machine: its open HCAs. A handle is a number that is never used twice, so that a stale one is
// told from a good one.
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

    // `opener` is the calling code. Null: the machine has no HCA of that name.
    kq_hca_h_t open(const char* name_in_stack, const void* opener);

    // The events of a plugged HCA. At the first call, starts the task that delivers them; throws a shortage when there
    // is no room for it.
    hca_events& events_of(fabric::hca& plugged);

    // Null: the handle is stale or was never given out. What it leads to stays for as long as the machine.
    hca_events* find(kq_hca_h_t handle) const;

    kq_return_t close(kq_hca_h_t handle);

    std::vector<std::string> left_by(const kernel::module_code& leaving) const override;

    // True for the first list of HCAs that has no room for all: it is worth a line in the log, once.
    bool is_first_cut() { return !cut_.exchange(true); }

  private:
    struct opened {
        hca_events* adapter;
        const void* opener;
    };
    kernel::machine& home_;
    mutable std::mutex mutex_;
    std::map<fabric::hca*, std::unique_ptr<hca_events>> adapters_;
    std::map<kq_hca_h_t, opened> open_;
    uintptr_t last_handle_ = 0;
    std::atomic<bool> cut_{false};
};

} // namespace stack
