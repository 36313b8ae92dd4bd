// Questions of a host's users, and a UCM that watches how the service answers.
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

// One question, and how it was settled. It stays where it is until the campaign ends.
struct question {
    node& asked_at;
    std::optional<uint32_t> kind; // of the act that asked, if its answer counts as that act's effect
    bool by_gid = false;          // for an address, which the SA is asked for by GID
    bool of_service = false;      // put to the service itself, whose time limits hold to the tick
    uint64_t begun_tick = 0;
    ibat_stat_t returned = ibat_stat_error;
    int replies = 0;
    ibat_stat_t status = ibat_stat_pending;
    uint32_t ip = 0;
    kq_gid_t gid{};
    bool is_closed = false; // no callback may come any more

    static void answered(ibat_stat_t status, ibat_arp_data_t* record, void* self);
    bool is_settled() const { return returned != ibat_stat_pending || replies > 0 || is_closed; }
};

// Each asks, from a task of the host that may sleep, and does not wait.
void ask_for_gid(question& asked, uint32_t ip, bool past_the_cache);
void ask_for_address(question& asked, const kq_gid_t& gid);
bool withdraw(question& asked);

// Stands in for the module UCM: takes the service's entry and puts questions to it directly. It lets nobody detach
// while a call runs, as UCM does, and expects no callback from then on.
class watching_ucm
{
  public:
    explicit watching_ucm(node& at);
    ~watching_ucm();

    void ask(question& asked, const kq_gid_t& gid);

  private:
    static ucm_stat_t attach(send_rarp_fn_t send_rarp, void* provider_context, void** handle);
    static ucm_stat_t detach(void* handle);

    node& at_;
    send_rarp_fn_t send_rarp_ = nullptr;
    void* provider_context_ = nullptr;
    int calls_running_ = 0;
};

} // namespace campaign
