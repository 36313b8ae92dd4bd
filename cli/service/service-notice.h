// Reports the state of the service to its service manager, as sd_notify(3) does: with a datagram to the socket that
// NOTIFY_SOCKET names. A few lines instead of libsystemd let every build report it.
#pragma once

namespace cli
{

// `state` is "READY=1", "STOPPING=1" or the like, or several of them in lines; a copy of `file` goes with it, unless it
// is -1. Waits a moment for a busy service manager. False: there is none, or it could not be reached. Most callers can
// do without one.
bool notify_service_manager(const char* state, int file = -1);

} // namespace cli
