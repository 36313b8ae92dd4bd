// Describes how a service was started. Clients then tell the user where to look if the service does not answer. The
// service writes the description into its lock file. It can be read even if the service is stopped or was killed.
#pragma once

#include <string>

namespace cli
{

// Describes this process in one line: its process ID and, if systemd has started it, the name of its unit.
std::string origin_of_this_process();

// The place of the service's messages: its unit's journal, or its terminal.
std::string where_to_look(const std::string& socket_path);

// Advice for a service on `socket_path` that shows no sign of life.
std::string how_to_wake(const std::string& socket_path);

// Advice for a `socket_path` where no service listens.
std::string how_to_start(const std::string& socket_path);

// The path of the file on which a service on `socket_path` holds a lock.
std::string lock_file_of(const std::string& socket_path);

} // namespace cli
