// Reports the state of the service to its service manager, like sd_notify(3): with a datagram to the socket in
// NOTIFY_SOCKET. This small implementation replaces libsystemd, so every build can report.
#pragma once

namespace cli
{

// `state` is for example "READY=1" or "STOPPING=1"; it may have several lines. A copy of `file` is sent with it, unless
// it is -1. Waits a moment for a busy service manager. Returns false if there is no service manager or it could not be
// reached. Most callers ignore that.
bool notify_service_manager(const char* state, int file = -1);

} // namespace cli
