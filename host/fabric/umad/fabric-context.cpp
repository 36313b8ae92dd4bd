#include "host/fabric/umad/fabric-context.h"

namespace umad
{

void fabric_context::show_tap(uint16_t source_lid, const fabric::address& destination, const fabric::mad_bytes& mad)
{
    if (!tap_) return; // without a tap, datagrams take no lock
    const std::lock_guard lock(tap_mutex_);
    if (fabric::tap* const tap = tap_) tap->crossed(exec.now(), source_lid, destination, mad);
}

void fabric_context::set_tap(fabric::tap* tap)
{
    const std::lock_guard lock(tap_mutex_);
    tap_ = tap;
}

} // namespace umad
