#include "recording/watched-hca.h"

namespace recording
{

namespace
{

std::atomic<uint64_t> last_number{0}; // the datagrams at all watched HCAs are numbered from 1

} // namespace

watched_hca::watched_hca(std::string host, fabric::hca& hca, recorder& recorder, const exec::executor& exec)
    : host_(std::move(host)), hca_(hca), recorder_(recorder), exec_(exec)
{
    for (int port = 1; port <= hca.port_count(); ++port) {
        const fabric::port_attributes attributes = hca.read_port(port);
        views_.push_back({.host_name = host_,
                          .hca_name = hca.name(),
                          .port = port,
                          .state = attributes.state,
                          .lid = attributes.lid,
                          .sm_lid = attributes.sm_lid,
                          .gid = attributes.gids.empty() ? "" : embedded::text_of(attributes.gids[0])});
        recorder.port_changed(exec.now(), views_.back());
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
    {
        const std::lock_guard lock(mutex_);
        embedded::port_view& view = views_[static_cast<size_t>(port - 1)];
        if (change == fabric::port_change::sm_change)
            view.sm_lid = new_sm_lid;
        else if (change != fabric::port_change::reregister)
            view.state = change == fabric::port_change::link_up ? fabric::link_state::active : fabric::link_state::down;
        recorder_.port_changed(exec_.now(), view);
    }
    listener_.load()->port_changed(port, change, new_sm_lid);
}

} // namespace recording
