// Several requests at a time on the connection of one client, for the command `ats`. The shared library does not export
// these calls: a program that asks many questions submits them with ats_submit_resolve() and the like.
#pragma once

#include <cstdint>

#include "client/ats/client.h"

namespace client
{

// Sends a request like ats_request_begin(), but does not end the requests before it. Stores its id in `id`. Only one
// thread at a time may make this call and next_line().
ats_status_t add_request(ats_client_t* client, const char* request, int timeout_ms, uint64_t& id);

// Waits for the next line of the answers to all added requests, like ats_request_next(). The lines come in the order in
// which the service sends them. Stores the id of the line's request in `id`. If the connection breaks, all unanswered
// requests end with an error; this call then returns it, after the lines that have arrived.
ats_status_t next_line(ats_client_t* client, int timeout_ms, uint64_t& id, char** line);

} // namespace client
