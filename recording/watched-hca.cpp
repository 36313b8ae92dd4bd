#include "recording/watched-hca.h"

namespace recording
{

namespace
{

std::atomic<uint64_t> last_number{0}; // of the latest datagram; all watched HCAs share the numbers, which begin at 1

void set_attributes(embedded::port_view& view, const fabric::port_attributes& attributes)
{
    view.state = attributes.state;
    view.lid = attributes.lid;
    view.sm_lid = attributes.sm_lid;
    view.gid = attributes.gids.empty() ? "" : embedded::text_of(attributes.gids[0]);
}

} // namespace

watched_hca::watched_hca(std::string host, fabric::hca& hca, recorder& recorder, const exec::executor& exec)
    : host_(std::move(host)), hca_(hca), recorder_(recorder), exec_(exec)
{
    for (int port = 1; port <= hca.port_count(); ++port) {
        embedded::port_view& view = views_.emplace_back();
        view.host_name = host_;
        view.hca_name = hca.name();
        view.port = port;
        set_attributes(view, hca.read_port(port));
        recorder.port_changed(exec.now(), view);
    }
}

bool watched_hca::send(int port, const fabric::address& destination, const fabric::mad_bytes& mad)
{
    const bool exists = port >= 1 && port <= port_count();
    if (!exists) return hca_.send(port, destination, mad);
    embedded::port_view view;
    {
        const std::lock_guard lock(mutex_);
        view = views_[static_cast<size_t>(port - 1)];
    }
    // Record the request before send(), because the answer may arrive before send() returns.
    const uint64_t number = ++last_number;
    recorder_.sent(exec_.now(), {number, mad, {}}, &view, destination.lid);
    if (hca_.send(port, destination, mad)) return true;
    recorder_.lost(exec_.now(), {number, mad, {}}, "the fabric did not accept it", false);
    return false;
}

void watched_hca::listen(fabric::listener* listener)
{
    if (listener) listener_ = listener;
    hca_.listen(listener ? this : nullptr);
    if (!listener) listener_ = nullptr;
}

void watched_hca::mad_arrived(int port, const fabric::address& source, const fabric::mad_bytes& mad)
{
    embedded::port_view view;
    {
        const std::lock_guard lock(mutex_);
        view = views_[static_cast<size_t>(port - 1)];
    }
    const uint64_t number = ++last_number;
    recorder_.sent(exec_.now(), {number, mad, {}}, nullptr, view.lid);
    recorder_.arrived(exec_.now(), {number, mad, {}}, &view);
    listener_.load()->mad_arrived(port, source, mad);
}

void watched_hca::port_changed(int port, fabric::port_change change, uint16_t new_sm_lid)
{
    const fabric::port_attributes attributes = hca_.read_port(port);
    {
        const std::lock_guard lock(mutex_);
        embedded::port_view& view = views_[static_cast<size_t>(port - 1)];
        set_attributes(view, attributes);
        recorder_.port_changed(exec_.now(), view);
    }
    listener_.load()->port_changed(port, change, new_sm_lid);
}

} // namespace recording
