// Reads a port's attributes from the system's files, through libibumad. For ports that do not answer questions about
// themselves. Files are slower than questions. Under ibsim the files do not change after the program has started.
#pragma once

#include <optional>
#include <string>

#include "host/fabric/fabric.h"

namespace umad
{

// Returns none if the port does not exist any more.
std::optional<fabric::port_attributes> read_port_files(const std::string& hca, int port);

} // namespace umad
