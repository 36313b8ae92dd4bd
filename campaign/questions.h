// Questions of a host's users, and a replacement for UCM that checks how the service answers.
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

// One question and its result. Its address must not change until the campaign ends: callbacks point to it.
struct question {
    node& asker;
    std::optional<uint32_t> act_kind; // the answer is an effect of this kind of act
    bool is_by_gid = false;           // it asks for the address of a GID; otherwise for the GID of an address
    bool is_of_service = false;       // it was sent to the service itself, whose time limits are exact to the tick
    uint64_t begin_tick = 0;
    ibat_stat_t return_status = ibat_stat_error;
    int replies = 0;
    ibat_stat_t status = ibat_stat_pending;
    uint32_t ip = 0;
    kq_gid_t gid{};
    bool is_by_path = false; // it asks for the path to `destination`
    bool is_fresh = false;   // for a path: the SA was asked
    kq_gid_t destination{};
    bool is_closed = false; // no more callbacks may follow

    static void take_answer(ibat_stat_t status, ibat_arp_data_t* record, void* self);
    bool is_settled() const { return return_status != ibat_stat_pending || replies > 0 || is_closed; }
};

// These functions ask and return without waiting for the answer. The caller is a task of the host that may sleep.
void ask_for_path(question& question, const kq_gid_t& gid, bool bypasses_cache);
void ask_for_gid(question& question, uint32_t ip, bool bypasses_cache);
void ask_for_address(question& question, const kq_gid_t& gid);

// Cancels an open question; no callback follows then. Returns true if the module still had it.
bool withdraw(question& question);

// Replaces the module UCM: the service attaches to it, and it passes questions directly to the service. As in UCM, a
// detach waits until no call runs.
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
