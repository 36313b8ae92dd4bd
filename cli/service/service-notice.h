// Tells a service manager how far a service is, in the way of sd_notify(3): a datagram to the socket that NOTIFY_SOCKET
// names. Nothing happens where there is none.
#pragma once

namespace cli
{

// "READY=1", "STOPPING=1", ...; more than one are parted by line ends.
void notify_service_manager(const char* state);

} // namespace cli
