// Sends requests to the SA for the program that runs a host. Each object is a GSI client of its own and joins the SA's
// class in addition to the modules. Therefore the program can ask the SA before the modules are loaded and after they
// are unloaded. The modules do not see these requests and answers.
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
    // Joins the class on the first port that is active and knows its SM. Fails with unreachable if the machine has no
    // such port, and with failed if GSI refuses a call. Only one thread at a time may call the functions and
    // the destructor of an object. This thread is outside of the machine; the calls enter the machine.
    static ats::result<std::unique_ptr<sa_questions>> open(kernel::machine& machine);
    ~sa_questions();
    sa_questions(const sa_questions&) = delete;
    sa_questions& operator=(const sa_questions&) = delete;

    // Returns true if the port is still active and its SM still has the same LID.
    bool is_usable() const;

    // Sends the request and waits at most one second for the answer. Repeats the request every quarter of a second
    // until the answer has come. The result is empty if there was no answer. ask() replaces the TransactionID of the
    // request. The request is in wire order. So is the answer, except its AttributeID: GSI has converted that to host
    // order.
    std::optional<sa_mad_v2_t> ask(const sa_mad_v2_t& request);

  private:
    explicit sa_questions(kernel::machine& machine) : machine_(machine) {}

    bool join(fabric::hca& hca, int port);
    void leave();
    void send(sa_mad_v2_t request, uint32_t transaction);
    bool has_answer();
    static void take_answer(gsi_class_handle_t handle, void* context, gsi_dtgrm_t* datagram);

    kernel::machine& machine_;
    fabric::hca* hca_ = nullptr; // the HCA and the port through which the object asks
    int port_ = 0;
    uint16_t sm_lid_ = 0;
    uint8_t sm_sl_ = 0;
    gsi_dtgrm_pool_handle_t pool_ = nullptr;
    gsi_class_handle_t class_ = nullptr;

    std::mutex mutex_;                  // guards the members below
    uint32_t first_transaction_ = 0;    // first TransactionID of the latest ask()
    std::optional<sa_mad_v2_t> answer_; // the answer to the latest ask()
};

} // namespace world
