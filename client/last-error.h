// The calling thread's last error, which ats_last_error() shows.
#pragma once

#include <string>

#include "client/ats/client.h"

namespace client
{

const std::string& last_error();

// Stores the error's text and returns the status.
ats_status_t failed(ats_status_t status, const std::string& text);

} // namespace client
