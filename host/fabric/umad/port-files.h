// A port's attributes from the system's files, through libibumad: for ports that do not answer questions about
// themselves. It is slower, and under ibsim the files do not change after the program has started.
#pragma once

#include <optional>
#include <string>

#include "host/fabric/fabric.h"

namespace umad
{

// None: the port does not exist any more.
std::optional<fabric::port_attributes> read_port_files(const std::string& hca, int port);

} // namespace umad
