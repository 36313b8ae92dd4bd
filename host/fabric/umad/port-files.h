// Reads a port's attributes from the files of the system (/sys/class/infiniband), through libibumad. This is for ports
// that do not answer the questions of self_query. Reading files is slower than asking. Under ibsim, the files do not
// change after the program has started.
#pragma once

#include <optional>
#include <string>

#include "host/fabric/fabric.h"

namespace umad
{

// Returns the attributes, or none if the port does not exist any more.
std::optional<fabric::port_attributes> read_port_files(const std::string& hca, int port);

} // namespace umad
