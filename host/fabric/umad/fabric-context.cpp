#include "host/fabric/umad/fabric-context.h"

namespace umad
{

void surroundings::show_tap(uint16_t source_lid, const fabric::address& destination, const fabric::mad_bytes& mad)
{
    if (!tap_) return;
    const std::lock_guard lock(tap_mutex_);
    if (fabric::tap* seeing = tap_) seeing->crossed(exec.now(), source_lid, destination, mad);
}

void surroundings::set_tap(fabric::tap* to)
{
    const std::lock_guard lock(tap_mutex_);
    tap_ = to;
}

} // namespace umad
