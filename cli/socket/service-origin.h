// Describes how a service was started, so that its clients can say where to look if it does not answer. The service
// writes it into its lock file: there it can be read even when the service is stopped or was killed.
#pragma once

#include <string>

namespace cli
{

// The line for this process: its process ID and, when systemd started it, the name of its unit.
std::string origin_of_this_process();

// Says where the messages of the service on `socket_path` are: in its unit's journal, or on its terminal.
std::string where_to_look(const std::string& socket_path);

// Advises on a service on `socket_path` that gives no sign of life.
std::string how_to_wake(const std::string& socket_path);

// Advises on a `socket_path` where no service listens.
std::string how_to_start(const std::string& socket_path);

// The file beside a socket that its service holds locked.
std::string lock_file_of(const std::string& socket_path);

} // namespace cli
