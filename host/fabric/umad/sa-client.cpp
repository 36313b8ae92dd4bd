#include "host/fabric/umad/sa-client.h"

#include <algorithm>
#include <arpa/inet.h>
#include <bit>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "host/fabric/umad/device.h"
#include "host/fabric/umad/libibumad.h"
#include "host/fabric/umad/umad.h"

namespace umad
{

namespace
{

using clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr size_t window = 8;          // sockets under ibsim hold ten, and more are lost
constexpr milliseconds patience(250); // then a request is sent again
constexpr int most_tries = 12;
constexpr size_t longest_answer = 1 << 20; // some thousand records
constexpr uint8_t kernel_does_rmpp = 1;

class umad_sa_client final : public sa_client
{
  public:
    explicit umad_sa_client(const port_listing& port) : listed_(port) {}
    ~umad_sa_client() override
    {
        if (descriptor_ >= 0) umad_close_port(descriptor_);
    }

    // Empty, or why not.
    std::string open(const std::string& hca)
    {
        called_ = hca + " port " + std::to_string(listed_.number);
        descriptor_ = umad_open_port(hca.c_str(), listed_.number);
        if (descriptor_ < 0) return why_not_opened(hca, listed_.number, errno);
        agent_ = umad_register(descriptor_, MAD_CLASS_SUBN_ADM, MAD_CLASS_VERSION_SUBN_ADM, kernel_does_rmpp, nullptr);
        buffer_.resize(umad_size() + sizeof(sa_mad_v2_t)); // what precedes a MAD is known only now
        if (agent_ >= 0) return "";
        return called_ + " lets nobody talk to the SA through it: " + std::strerror(errno);
    }

    std::vector<std::optional<sa_mad_v2_t>> ask(const std::vector<sa_mad_v2_t>& requests) override;
    std::optional<sa_table> ask_table(const sa_mad_v2_t& request) override;
    fabric::gid_bytes gid() const override { return listed_.gid; }
    uint16_t sm_lid() const override { return listed_.sm_lid; }

  private:
    struct asked {
        size_t request;
        uint32_t transaction;
        int tries;
        clock::time_point deadline;
    };

    void send(sa_mad_v2_t request, asked& as);

    // Waits for one answer; its length in bytes is returned and it is in the buffer. 0: none came in that time.
    size_t receive(milliseconds longest);
    sa_mad_v2_t received(size_t length) const;

    const port_listing listed_;
    std::string called_; // "mlx5_0 port 1"
    int descriptor_ = -1;
    int agent_ = -1;
    uint32_t last_transaction_ = 0;
    std::vector<unsigned char> buffer_; // a umad header and what was received
};

void umad_sa_client::send(sa_mad_v2_t request, asked& as)
{
    as.transaction = ++last_transaction_;
    as.deadline = clock::now() + patience;
    ++as.tries;
    device::packet leaving;
    leaving.address().qpn = htonl(1);
    leaving.address().qkey = htonl(fabric::qp1_q_key);
    leaving.address().lid = htons(listed_.sm_lid);
    leaving.address().sl = listed_.sm_sl;
    request.hdr.transact_id = to_wire(uint64_t{as.transaction});
    leaving.mad() = std::bit_cast<fabric::mad_bytes>(request);
    // One that is not taken is as good as one that is lost.
    umad_send(descriptor_, agent_, leaving.bytes(), MAD_SIZE, static_cast<int>(patience.count()), 0);
}

size_t umad_sa_client::receive(milliseconds longest)
{
    errno = 0; // else libibumad leaves it what it was
    int length = static_cast<int>(buffer_.size() - umad_size());
    int agent = umad_recv(descriptor_, buffer_.data(), &length, static_cast<int>(longest.count()));
    if (agent == -ENOSPC && length > 0) {
        if (static_cast<size_t>(length) > longest_answer)
            throw std::runtime_error("the SA's answer has " + std::to_string(length) + " bytes: ask for fewer records");
        buffer_.resize(umad_size() + static_cast<size_t>(length));
        agent = umad_recv(descriptor_, buffer_.data(), &length, 0);
    }
    const bool is_early = agent == -ETIMEDOUT || agent == -EWOULDBLOCK || errno == EWOULDBLOCK || errno == EINTR;
    if (agent < 0 && !is_early)
        throw std::runtime_error(called_ + " cannot be read from: " + std::strerror(errno != 0 ? errno : -agent));
    // What comes back unanswered is waited for until its time is over: it may have come back at once.
    const bool is_answer = agent >= 0 && umad_status(buffer_.data()) == 0;
    return is_answer && static_cast<size_t>(length) >= offsetof(sa_mad_v2_t, payload) ? static_cast<size_t>(length) : 0;
}

sa_mad_v2_t umad_sa_client::received(size_t length) const
{
    sa_mad_v2_t mad{};
    std::memcpy(&mad, umad_get_mad(const_cast<unsigned char*>(buffer_.data())), std::min(length, sizeof mad));
    return mad;
}

std::vector<std::optional<sa_mad_v2_t>> umad_sa_client::ask(const std::vector<sa_mad_v2_t>& requests)
{
    std::vector<std::optional<sa_mad_v2_t>> answers(requests.size());
    std::vector<asked> in_flight;
    for (size_t next = 0; next < requests.size() || !in_flight.empty();) {
        while (next < requests.size() && in_flight.size() < window) {
            in_flight.push_back({.request = next, .transaction = 0, .tries = 0, .deadline = {}});
            send(requests[next++], in_flight.back());
        }
        if (const size_t length = receive(patience)) {
            const sa_mad_v2_t answer = received(length);
            const auto transaction = static_cast<uint32_t>(from_wire(answer.hdr.transact_id));
            const auto found = std::ranges::find(in_flight, transaction, &asked::transaction);
            if (found != in_flight.end()) {
                answers[found->request] = answer;
                in_flight.erase(found);
            }
        }
        const auto now = clock::now();
        std::erase_if(in_flight, [&](const asked& each) { return each.deadline <= now && each.tries >= most_tries; });
        for (asked& each : in_flight)
            if (each.deadline <= now) send(requests[each.request], each);
    }
    return answers;
}

std::optional<sa_table> umad_sa_client::ask_table(const sa_mad_v2_t& request)
{
    asked as{.request = 0, .transaction = 0, .tries = 0, .deadline = {}};
    size_t length = 0;
    sa_mad_v2_t answer;
    while (as.tries < most_tries) {
        send(request, as);
        do {
            length = receive(patience);
            answer = received(length);
        } while (clock::now() < as.deadline &&
                 (length == 0 || static_cast<uint32_t>(from_wire(answer.hdr.transact_id)) != as.transaction));
        if (length != 0 && static_cast<uint32_t>(from_wire(answer.hdr.transact_id)) == as.transaction) break;
        length = 0;
    }
    if (length == 0) return std::nullopt;

    sa_table table{.status = from_wire(answer.hdr.u.ns.status.raw16)};
    const size_t stride = from_wire(answer.attr_offset) * size_t{8}; // IBA 15.2.1.1: in units of 8 bytes
    if (table.status != 0 || stride < sizeof(ib_service_record_v2_t)) return table;
    const size_t header = offsetof(sa_mad_v2_t, payload);
    const auto* bytes = static_cast<const unsigned char*>(umad_get_mad(buffer_.data())) + header;
    for (size_t at = 0; at + sizeof(ib_service_record_v2_t) <= length - header; at += stride)
        std::memcpy(&table.records.emplace_back(), bytes + at, sizeof(ib_service_record_v2_t));
    // A table of any number of records ends with one; a first segment is full, and ends somewhere in the second.
    table.is_whole = length != MAD_SIZE || (length - header) % stride == 0;
    return table;
}

} // namespace

opened_sa_client open_sa_client(const std::string& hca, int port)
{
    const listing found = list_hcas();
    if (!found.why.empty()) return {nullptr, found.why};
    for (const hca_listing& adapter : found.hcas) {
        for (const port_listing& each : adapter.ports) {
            const bool is_wanted = (hca.empty() || adapter.name == hca) && (port == 0 || each.number == port);
            if (!is_wanted || !is_infiniband(each) || each.state != fabric::link_state::active) continue;
            auto client = std::make_unique<umad_sa_client>(each);
            if (const std::string why = client->open(adapter.name); !why.empty()) return {nullptr, why};
            return {std::move(client), ""};
        }
    }
    return {nullptr, hca.empty() ? "no InfiniBand port of this machine is active; 'ats check' says more"
                                 : hca + " has no such active port; 'ats check' says more"};
}

} // namespace umad
