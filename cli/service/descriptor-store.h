// Descriptors that outlive this process. The service manager keeps copies of them and passes them to the next process
// of the service (FDSTORE=1 of sd_notify(3), LISTEN_FDS of sd_listen_fds(3)). Any thread. Without a service manager,
// nothing is kept.
#pragma once

#include <string>
#include <vector>

#include "client/descriptor.h"

namespace cli
{

struct kept_descriptor {
    std::string name;
    client::descriptor file;
};

// Returns the descriptors that earlier processes of the service have left, each one once. Call it before other threads
// read the environment.
std::vector<kept_descriptor> take_kept_descriptors();

// Makes the service manager keep a copy of `file` until it is forgotten or its other end is closed. Names must be
// unique. Returns false if there is no service manager, or if it accepts no message at once.
bool keep_descriptor(const std::string& name, int file);
void forget_descriptor(const std::string& name);

} // namespace cli
