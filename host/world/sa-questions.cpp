#include "host/world/sa-questions.h"

#include <atomic>
#include <bit>
#include <cstring>

#include "host/stack/hca-hub.h"
#include "kernel/sync.h"

namespace world
{

namespace
{

constexpr int32_t pool_size = 8;
constexpr uint32_t most_tries = 4;
constexpr uint64_t try_ticks = 250;
constexpr unsigned long pause_ticks = 1;

// The number of TransactionIDs that all objects have used. No two questions use the same ones, because a late answer to
// one object may arrive when another object has its number in the class.
std::atomic<uint32_t> used_transactions{0};

void put_sent_datagram(gsi_class_handle_t, void*, gsi_dtgrm_t* datagram)
{
    gsi_dtgrm_pool_put(datagram);
}

} // namespace

ats::result<std::unique_ptr<sa_questions>> sa_questions::open(kernel::machine& machine)
{
    std::unique_ptr<sa_questions> questions(new sa_questions(machine));
    for (fabric::hca* hca : machine.hcas()) {
        for (int port = 1; port <= hca->port_count(); ++port) {
            const fabric::port_attributes attributes = hca->read_port(port);
            if (attributes.state != fabric::link_state::active || attributes.sm_lid == 0) continue;
            questions->hca_ = hca;
            questions->port_ = port;
            questions->sm_lid_ = attributes.sm_lid;
            questions->sm_sl_ = attributes.sm_sl;
            if (!questions->join(*hca, port)) return ats::fail("GSI of " + hca->name() + " accepts no further client");
            return questions;
        }
    }
    return ats::fail(ats::error_kind::unreachable, "no port is active");
}

sa_questions::~sa_questions()
{
    machine_.enter("SA questions", [this] { leave(); });
}

bool sa_questions::join(fabric::hca& hca, int port)
{
    bool has_joined = false;
    machine_.enter("SA questions", [&] {
        const kq_hca_name name = stack::name_for_modules(hca);
        if (gsi_dtgrm_pool_create_named(pool_size, &pool_, "SA questions") != 0) return;
        has_joined = gsi_join_class(MAD_CLASS_SUBN_ADM, MAD_CLASS_VERSION_SUBN_ADM, &name, port, put_sent_datagram,
                                    take_answer, this, &class_) == 0;
    });
    return has_joined;
}

// Leaves the class and destroys the pool. gsi_deregister_class() fails while a datagram of the class is being sent or
// delivered, so this function repeats the call until it succeeds.
void sa_questions::leave()
{
    while (class_ && gsi_deregister_class(class_) != 0) schedule_timeout_uninterruptible(pause_ticks);
    if (pool_) gsi_dtgrm_pool_destroy(pool_);
}

bool sa_questions::is_usable() const
{
    const fabric::port_attributes attributes = hca_->read_port(port_);
    return attributes.state == fabric::link_state::active && attributes.sm_lid == sm_lid_;
}

std::optional<sa_mad_v2_t> sa_questions::ask(const sa_mad_v2_t& request)
{
    const uint32_t first_transaction = used_transactions.fetch_add(most_tries);
    machine_.enter("SA questions", [&] {
        {
            const std::lock_guard lock(mutex_);
            first_transaction_ = first_transaction & gsi_joined_transaction_bits;
            answer_.reset();
        }
        for (uint32_t i = 0; i < most_tries && !has_answer(); ++i) {
            send(request, first_transaction + i);
            const uint64_t deadline = machine_.exec().now() + try_ticks;
            while (!has_answer() && machine_.exec().now() < deadline) schedule_timeout_uninterruptible(pause_ticks);
        }
    });
    const std::lock_guard lock(mutex_);
    return answer_;
}

// Sends one attempt. If GSI refuses it, does nothing: ask() sends the next attempt later.
void sa_questions::send(sa_mad_v2_t request, uint32_t transaction)
{
    gsi_dtgrm_t* datagram;
    if (gsi_dtgrm_pool_get(pool_, &datagram) != 0) return;
    request.hdr.transact_id = to_wire(uint64_t{transaction & gsi_joined_transaction_bits});
    // GSI expects the AttributeID in host order and converts it to wire order.
    request.hdr.attrib_id = from_wire(std::bit_cast<be16_t>(request.hdr.attrib_id));
    std::memcpy(datagram->mad, &request, sizeof request);
    datagram->rqp = 1;
    datagram->rqk = 0;
    datagram->rlid = sm_lid_;
    datagram->sl = sm_sl_;
    datagram->guid = 0;
    datagram->path_bits = 0;
    datagram->static_rate = 0;
    if (gsi_post_send_dtgrm(class_, datagram, nullptr) != 0) gsi_dtgrm_pool_put(datagram);
}

bool sa_questions::has_answer()
{
    const std::lock_guard lock(mutex_);
    return answer_.has_value();
}

void sa_questions::take_answer(gsi_class_handle_t, void* context, gsi_dtgrm_t* datagram)
{
    auto& self = *static_cast<sa_questions*>(context);
    sa_mad_v2_t answer;
    std::memcpy(&answer, datagram->mad, sizeof answer);
    gsi_dtgrm_pool_put(datagram);
    const uint64_t transaction = from_wire(answer.hdr.transact_id);
    const std::lock_guard lock(self.mutex_);
    const uint64_t try_number = (transaction - self.first_transaction_) & gsi_joined_transaction_bits; // the IDs wrap
    if (try_number < most_tries) self.answer_ = answer;
}

} // namespace world
