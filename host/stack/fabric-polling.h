// Receives answers in the task of the sleeping timers while answers keep coming. Handlers that may sleep mostly wait
// for answers of the SA, and an answer mostly makes such a handler due. Receiving in the same task saves two task
// switches for each answer: one to the fabric's own task, one back.
//
//   states of the sleeping timers' task:
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
// A fabric whose HCAs cannot be polled (embedded) receives nothing here: the task goes straight to sleep.
#pragma once

#include <utility>
#include <vector>

#include "host/fabric/fabric.h"

namespace stack
{

class fabric_polling
{
  public:
    // The fabric owns the HCAs. They must outlive the polling task.
    explicit fabric_polling(std::vector<fabric::hca*> hcas) : hcas_(std::move(hcas)) {}

    // Polls every HCA once (see fabric::hca::poll). Returns true if one of them received something. May sleep, at most
    // one tick at each port. Only one task may call it.
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
