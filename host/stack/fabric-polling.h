// In stack::timers, one task runs the timer handlers that may sleep. fabric_polling lets this task also receive the
// answers of the SA. The handlers mostly wait for these answers, and an answer mostly makes such a handler due. If the
// same task receives the answer, each answer saves two task switches: one to the fabric's own task, and one back.
//
//   states of that task:
//
//                  a timer becomes due
//      asleep ------------------------------> running handlers
//        ^                                      |          ^
//        | no HCA received anything     no handler is due  | a handler is due
//        |                                      v          |
//        +----------------------------------- polling -----+
//                                              |   ^
//                                              +---+ an HCA received something
//
// The HCAs of the embedded fabric cannot be polled: their poll() always returns false, so the task sleeps at once.
#pragma once

#include <utility>
#include <vector>

#include "host/fabric/fabric.h"

namespace stack
{

class fabric_polling
{
  public:
    // The fabric owns the HCAs. They must outlive the task that calls poll().
    explicit fabric_polling(std::vector<fabric::hca*> hcas) : hcas_(std::move(hcas)) {}

    // Polls every HCA once (see fabric::hca::poll). Returns true if at least one HCA received something. May sleep, at
    // most one tick (1 ms) at each port. Only one task may call poll().
    bool poll() const
    {
        bool has_received = false;
        for (fabric::hca* hca : hcas_) has_received |= hca->poll();
        return has_received;
    }

  private:
    std::vector<fabric::hca*> hcas_;
};

} // namespace stack
