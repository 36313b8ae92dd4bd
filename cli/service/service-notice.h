// Reports the state of the service to its service manager, as sd_notify(3) does: with a datagram to the socket that
// NOTIFY_SOCKET names. A few lines instead of libsystemd let every build report it.
#pragma once

namespace cli
{

// `state` is "READY=1", "STOPPING=1" or the like, or several of them in lines. Does nothing without a service manager;
// errors are ignored, because the service can do without one.
void notify_service_manager(const char* state);

} // namespace cli
