// Describes how a service was started: by systemd or by a person. The service writes this description into its lock
// file. If the service does not answer, clients read the file and tell the user where to look. The file can also be
// read if the service is stopped or was killed.
#pragma once

#include <string>

namespace cli
{

// Returns the line for the lock file of this process: its process ID and, if systemd has started it, the name of its
// unit.
std::string origin_of_this_process();

// Returns a text that tells the user where the messages of the service on `socket_path` are: in the journal of its
// unit, or on its terminal.
std::string where_to_look(const std::string& socket_path);

// Returns a text that tells the user what to do if the service on `socket_path` does not react.
std::string how_to_wake(const std::string& socket_path);

// Returns a text that tells the user what to do if no service listens on `socket_path`.
std::string how_to_start(const std::string& socket_path);

// Returns the path of the lock file of a service on `socket_path`. The service holds a lock on this file.
std::string lock_file_of(const std::string& socket_path);

} // namespace cli
