// Reports the state of the service to its service manager, like sd_notify(3): with a datagram to the socket that the
// environment variable NOTIFY_SOCKET names. This needs no libsystemd, so every build can report.
#pragma once

namespace cli
{

// Sends `state`, for example "READY=1" or "STOPPING=1"; it may have several lines. If `file` is not -1, also sends a
// copy of this descriptor. Waits at most 0.1 seconds for a busy service manager. Returns false if there is no service
// manager or it could not be reached. Most callers ignore the result. Any thread.
bool notify_service_manager(const char* state, int file = -1);

} // namespace cli
