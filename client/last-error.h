// The text of the last error. Each thread has its own text; ats_last_error() returns the text to the program.
#pragma once

#include <string>

#include "client/ats/client.h"

namespace client
{

const std::string& last_error();

// Stores `text` as the last error of the calling thread, and returns `status`.
ats_status_t failed(ats_status_t status, const std::string& text);

} // namespace client
