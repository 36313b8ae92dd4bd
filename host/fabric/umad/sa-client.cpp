#include "host/fabric/umad/sa-client.h"

#include <algorithm>
#include <arpa/inet.h>
#include <bit>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "host/fabric/umad/device.h"
#include "host/fabric/umad/libibumad.h"
#include "host/fabric/umad/umad.h"

namespace umad
{

namespace
{

using clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr size_t window = 8; // most requests in flight; under ibsim, a socket has space for only ten datagrams
constexpr milliseconds resend_time(250);
constexpr int most_tries = 12;
constexpr size_t longest_answer_bytes = 1 << 20; // almost 6000 records
constexpr uint8_t kernel_does_rmpp = 1;

class umad_sa_client final : public sa_client
{
  public:
    explicit umad_sa_client(const port_listing& port) : port_(port) {}
    ~umad_sa_client() override
    {
        if (descriptor_ >= 0) umad_close_port(descriptor_);
    }

    ats::result<> open(const std::string& hca);

    ats::result<std::vector<std::optional<sa_mad_v2_t>>> ask(const std::vector<sa_mad_v2_t>& requests) override;
    ats::result<sa_table> ask_table(const sa_mad_v2_t& request) override;
    fabric::gid_bytes gid() const override { return port_.gid; }
    uint16_t sm_lid() const override { return port_.sm_lid; }

  private:
    struct sent_request {
        size_t index; // in the caller's list
        uint32_t transaction = 0;
        int tries = 0;
        clock::time_point deadline = {};
    };

    void send(sa_mad_v2_t mad, sent_request& state);

    // Waits for one answer, at most for `limit`, and stores it in the buffer. Returns the length of the MAD in bytes,
    // or 0 if there is no answer.
    ats::result<size_t> receive(milliseconds limit);

    // Does the same as receive(), but ignores answers to other requests. Returns 0 only after the deadline of
    // `request`.
    ats::result<size_t> receive_answer(const sent_request& request);

    // Returns the first `length` bytes of the answer in the buffer, but at most one MAD.
    sa_mad_v2_t buffered_mad(size_t length) const;
    sa_table buffered_table(size_t length) const;

    const port_listing port_;
    std::string name_; // "mlx5_0 port 1"
    int descriptor_ = -1;
    int agent_ = -1;
    uint32_t last_transaction_ = 0;
    std::vector<unsigned char> buffer_; // a umad header and the last answer
};

// Returns the low half of the TransactionID. The kernel and ibsim change the high half.
uint32_t transaction_of(const sa_mad_v2_t& mad)
{
    return static_cast<uint32_t>(from_wire(mad.hdr.transact_id));
}

ats::result<> umad_sa_client::open(const std::string& hca)
{
    name_ = hca + " port " + std::to_string(port_.number);
    descriptor_ = umad_open_port(hca.c_str(), port_.number);
    if (descriptor_ < 0) return ats::fail(open_error_text(hca, port_.number, errno));
    agent_ = umad_register(descriptor_, MAD_CLASS_SUBN_ADM, MAD_CLASS_VERSION_SUBN_ADM, kernel_does_rmpp, nullptr);
    buffer_.resize(umad_size() + sizeof(sa_mad_v2_t)); // libibumad knows umad_size() only after it has opened a port
    if (agent_ < 0) return ats::fail(name_ + " accepts no client of the SA: " + std::strerror(errno));
    return {};
}

void umad_sa_client::send(sa_mad_v2_t mad, sent_request& state)
{
    state.transaction = ++last_transaction_;
    state.deadline = clock::now() + resend_time;
    ++state.tries;
    device::packet packet;
    packet.address().qpn = htonl(1);
    packet.address().qkey = htonl(fabric::qp1_q_key);
    packet.address().lid = htons(port_.sm_lid);
    packet.address().sl = port_.sm_sl;
    mad.hdr.transact_id = to_wire(uint64_t{state.transaction});
    packet.mad() = std::bit_cast<fabric::mad_bytes>(mad);
    // If libibumad refuses a request, the request counts as lost and is sent again.
    umad_send(descriptor_, agent_, packet.bytes(), MAD_SIZE, static_cast<int>(resend_time.count()), 0);
}

ats::result<size_t> umad_sa_client::receive(milliseconds limit)
{
    errno = 0; // umad_recv() does not set errno in all cases
    int length = static_cast<int>(buffer_.size() - umad_size());
    int agent = umad_recv(descriptor_, buffer_.data(), &length, static_cast<int>(limit.count()));
    if (agent == -ENOSPC && length > 0) {
        if (static_cast<size_t>(length) > longest_answer_bytes)
            return ats::fail("the SA's answer has " + std::to_string(length) + " bytes: ask for fewer records");
        buffer_.resize(umad_size() + static_cast<size_t>(length));
        agent = umad_recv(descriptor_, buffer_.data(), &length, 0);
    }
    const bool is_early = agent == -ETIMEDOUT || agent == -EWOULDBLOCK || errno == EWOULDBLOCK || errno == EINTR;
    if (agent < 0 && !is_early)
        return ats::fail(name_ + " cannot be read from: " + std::strerror(errno != 0 ? errno : -agent));
    // A status other than 0 means that the kernel returns a request without an answer, perhaps long before its
    // deadline. This counts as no answer: the caller sends the request again after its deadline.
    const bool is_answer =
        agent >= 0 && umad_status(buffer_.data()) == 0 && static_cast<size_t>(length) >= offsetof(sa_mad_v2_t, payload);
    return is_answer ? static_cast<size_t>(length) : 0;
}

sa_mad_v2_t umad_sa_client::buffered_mad(size_t length) const
{
    sa_mad_v2_t mad{};
    std::memcpy(&mad, umad_get_mad(const_cast<unsigned char*>(buffer_.data())), std::min(length, sizeof mad));
    return mad;
}

ats::result<std::vector<std::optional<sa_mad_v2_t>>> umad_sa_client::ask(const std::vector<sa_mad_v2_t>& requests)
{
    std::vector<std::optional<sa_mad_v2_t>> answers(requests.size());
    std::vector<sent_request> in_flight;
    size_t next = 0;
    while (next < requests.size() || !in_flight.empty()) {
        while (next < requests.size() && in_flight.size() < window) {
            in_flight.push_back({.index = next});
            send(requests[next], in_flight.back());
            ++next;
        }
        const auto length = receive(resend_time);
        if (!length) return ats::pass_on(length);
        if (*length != 0) {
            const sa_mad_v2_t answer = buffered_mad(*length);
            const auto request = std::ranges::find(in_flight, transaction_of(answer), &sent_request::transaction);
            if (request != in_flight.end()) {
                answers[request->index] = answer;
                in_flight.erase(request);
            }
        }
        const auto now = clock::now();
        std::erase_if(in_flight, [&](const sent_request& request) {
            return request.deadline <= now && request.tries >= most_tries;
        });
        for (sent_request& request : in_flight)
            if (request.deadline <= now) send(requests[request.index], request);
    }
    return answers;
}

ats::result<size_t> umad_sa_client::receive_answer(const sent_request& request)
{
    while (true) {
        const auto length = receive(resend_time);
        if (!length) return length;
        if (*length != 0 && transaction_of(buffered_mad(*length)) == request.transaction) return length;
        if (clock::now() >= request.deadline) return 0;
    }
}

ats::result<sa_table> umad_sa_client::ask_table(const sa_mad_v2_t& request)
{
    sent_request state{.index = 0};
    while (state.tries < most_tries) {
        send(request, state);
        const auto length = receive_answer(state);
        if (!length) return ats::pass_on(length);
        if (*length != 0) return buffered_table(*length);
    }
    return tl::make_unexpected(silence());
}

sa_table umad_sa_client::buffered_table(size_t length) const
{
    const sa_mad_v2_t answer = buffered_mad(length);
    sa_table table{.status = from_wire(answer.hdr.u.ns.status.raw16)};
    const size_t stride = from_wire(answer.attr_offset) * size_t{8}; // IBA 15.2.1.1: in units of 8 bytes
    if (table.status != 0 || stride < sizeof(ib_service_record_v2_t)) return table;
    const size_t header = offsetof(sa_mad_v2_t, payload);
    const auto* bytes =
        static_cast<const unsigned char*>(umad_get_mad(const_cast<unsigned char*>(buffer_.data()))) + header;
    for (size_t offset = 0; offset + sizeof(ib_service_record_v2_t) <= length - header; offset += stride)
        std::memcpy(&table.records.emplace_back(), bytes + offset, sizeof(ib_service_record_v2_t));
    // A whole table ends at the end of a record. If only the first segment has arrived, the answer has the size of a
    // MAD, and ends within a record.
    table.is_whole = length != MAD_SIZE || (length - header) % stride == 0;
    return table;
}

} // namespace

ats::result<std::unique_ptr<sa_client>> open_sa_client(const std::string& hca, int port)
{
    const auto hcas = list_hcas();
    if (!hcas) return ats::pass_on(hcas);
    for (const hca_listing& adapter : *hcas) {
        for (const port_listing& each : adapter.ports) {
            const bool is_selected = (hca.empty() || adapter.name == hca) && (port == 0 || each.number == port);
            if (!is_selected || !is_infiniband(each) || each.state != fabric::link_state::active) continue;
            auto client = std::make_unique<umad_sa_client>(each);
            if (const auto result = client->open(adapter.name); !result) return ats::pass_on(result);
            return client;
        }
    }
    return ats::fail(ats::error_kind::not_found,
                     hca.empty() ? "no InfiniBand port of this machine is active" : hca + " has no such active port");
}

} // namespace umad
