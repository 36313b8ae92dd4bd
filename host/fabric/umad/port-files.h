// A port's attributes as the system's files have them, through libibumad: for where a port does not answer questions
// about itself. Slower, and under ibsim as old as the program.
#pragma once

#include <optional>
#include <string>

#include "host/fabric/fabric.h"

namespace umad
{

// None: there is no such port any more.
std::optional<fabric::port_attributes> attributes_in_files(const std::string& hca, int port);

} // namespace umad
