// The questions that users of a host ask: for GIDs and paths through IBAT, for addresses through UCM. Each answer is
// checked when it arrives. This file also has a replacement for UCM. The replacement passes questions directly to the
// service (the module ats), and checks how the service attaches and detaches itself.
#pragma once

#include <cstdint>
#include <optional>

#include "devucm-exports.h"
#include "ib-types.h"
#include "ibat.h"

namespace kernel
{
class machine;
}

namespace campaign
{

struct node;

// One question and its result. A question stays at its place in memory until the run ends, because callbacks have
// pointers to it.
struct question {
    node& asker;
    std::optional<uint32_t> act_kind; // if set, the answer counts as an effect of this kind of act
    bool is_by_gid = false;           // asks for the address of a GID; otherwise for the GID of an address
    bool is_of_service = false;       // asks the service directly, without IBAT and UCM
    uint64_t begin_tick = 0;
    ibat_stat_t return_status = ibat_stat_error; // the return value of the call that asked
    int replies = 0;                             // number of callbacks
    ibat_stat_t status = ibat_stat_pending;      // the status that the callback has reported
    uint32_t ip = 0;
    kq_gid_t gid{};
    bool is_by_path = false; // asks for the path to `destination` instead
    bool is_fresh = false;   // for a path: the question bypassed the cache
    kq_gid_t destination{};
    bool is_closed = false; // no callback may follow any more

    static void take_answer(ibat_stat_t status, ibat_arp_data_t* record, void* self);
    bool is_settled() const { return return_status != ibat_stat_pending || replies > 0 || is_closed; }
};

// These functions ask, and return without waiting for the answer. Call them in a task of the host that may sleep.
void ask_for_path(question& question, const kq_gid_t& gid, bool bypasses_cache);
void ask_for_gid(question& question, uint32_t ip, bool bypasses_cache);
void ask_for_address(question& question, const kq_gid_t& gid);

// Cancels an open question; afterwards no callback comes. Returns true if IBAT or UCM still had the question. Does
// nothing if the question went directly to the service, or if the module that has the question is not loaded.
bool withdraw(question& question);

// Replaces the module UCM. The service attaches to this object, and ask() passes questions directly to the service. As
// with UCM, a detach waits until no such call runs.
class watching_ucm
{
  public:
    explicit watching_ucm(node& node);
    ~watching_ucm();

    void ask(question& question, const kq_gid_t& gid);

  private:
    static ucm_stat_t attach(send_rarp_fn_t send_rarp, void* provider_context, void** handle);
    static ucm_stat_t detach(void* handle);

    node& node_;
    send_rarp_fn_t send_rarp_ = nullptr;
    void* provider_context_ = nullptr;
    int running_calls_ = 0;
};

} // namespace campaign
