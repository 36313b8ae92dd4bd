// Asks the SA questions for the program that runs a host. It is a client of GSI of its own and joins the SA's class
// beside the modules. It can therefore ask before the modules are loaded and after they are unloaded. The modules do
// not notice it.
#pragma once

#include <memory>
#include <mutex>
#include <optional>

#include "gsi.h"
#include "host/fabric/fabric.h"
#include "host/kernel/machine.h"
#include "host/result.h"
#include "sa-mads.h"

namespace world
{

class sa_questions
{
  public:
    // Opens the first active port of the machine. Fails with unreachable if there is none, and with no_memory or failed
    // if GSI refuses. Only one caller at a time, from outside of the machine, may use this call, ask() and the
    // destructor.
    static ats::result<std::unique_ptr<sa_questions>> open(kernel::machine& machine);
    ~sa_questions();
    sa_questions(const sa_questions&) = delete;
    sa_questions& operator=(const sa_questions&) = delete;

    // Sends the request, repeats it if necessary, and waits at most one second for its answer. The result is empty if
    // the SA is silent. The request is in wire order; its TransactionID does not matter.
    std::optional<sa_mad_v2_t> ask(const sa_mad_v2_t& request);

  private:
    explicit sa_questions(kernel::machine& machine) : machine_(machine) {}

    bool join(fabric::hca& hca, int port);
    void leave();
    void send(sa_mad_v2_t request);
    bool has_answer();
    static void received(gsi_class_handle_t handle, void* context, gsi_dtgrm_t* datagram);

    kernel::machine& machine_;
    uint16_t sm_lid_ = 0;
    uint8_t sm_sl_ = 0;
    gsi_dtgrm_pool_handle_t pool_ = nullptr;
    gsi_class_handle_t class_ = nullptr;
    uint32_t last_transaction_ = 0;

    std::mutex mutex_;               // guards the members below
    uint32_t first_transaction_ = 0; // of the waiting question; answers to older questions are late
    std::optional<sa_mad_v2_t> answer_;
};

} // namespace world
