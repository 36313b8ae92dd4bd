#include "host/fabric/umad/real-hca.h"

namespace umad
{

adapter::adapter(surroundings& around, const hca_listing& listed)
    : around_(around), name_(listed.name), records_(around.wanted.sa_delete_p_key)
{
    for (const port_listing& each : listed.ports) {
        const int number = each.number;
        is_infiniband_.push_back(is_infiniband(each));
        port_events events{
            .arrived =
                [this, number](const fabric::address& source, const fabric::mad_bytes& mad) {
                    tell([&](fabric::listener& to) { to.mad_arrived(number, source, mad); });
                },
            .may_complete = [this](bool again) { tell([&](fabric::listener& to) { to.may_complete(again); }); },
            .changed =
                [this, number](fabric::port_change change, uint16_t sm_lid) {
                    tell([&](fabric::listener& to) { to.port_changed(number, change, sm_lid); });
                },
        };
        ports_.push_back(std::make_unique<port>(around, records_, name_, number, std::move(events)));
    }
}

std::string adapter::open()
{
    for (size_t i = 0; i < ports_.size(); ++i) {
        if (!is_infiniband_[i]) {
            around_.say(name_ + " port " + std::to_string(i + 1) +
                        ": not InfiniBand, or without a management device: left alone");
            continue;
        }
        if (const std::string why = ports_[i]->open(); !why.empty()) return why;
    }
    for (size_t i = 0; i < ports_.size(); ++i)
        if (is_infiniband_[i]) ports_[i]->start();
    return "";
}

template <class call_t>
void adapter::tell(const call_t& call)
{
    const std::lock_guard lock(telling_);
    if (told_) call(*told_);
}

void adapter::listen(fabric::listener* to)
{
    const std::lock_guard lock(telling_);
    told_ = to;
}

fabric::port_attributes adapter::read_port(int port)
{
    return ports_.at(static_cast<size_t>(port - 1))->read();
}

bool adapter::send(int port, const fabric::address& destination, const fabric::mad_bytes& mad)
{
    return port >= 1 && port <= port_count() && ports_[static_cast<size_t>(port - 1)]->send(destination, mad);
}

bool adapter::poll()
{
    bool any = false;
    for (const auto& each : ports_) any |= each->poll();
    return any;
}

traffic_counts adapter::counts() const
{
    traffic_counts sum;
    for (const auto& each : ports_) sum = sum + each->counts();
    return sum;
}

} // namespace umad
