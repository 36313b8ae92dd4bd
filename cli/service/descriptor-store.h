// Descriptors that outlive this process: the service manager keeps copies of them and hands them to the next process of
// the service (FDSTORE=1 of sd_notify(3), LISTEN_FDS of sd_listen_fds(3)). Any thread; without a service manager
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

// The descriptors that earlier processes of the service left, each once. Call this before threads read the environment.
std::vector<kept_descriptor> take_kept_descriptors();

// Lets the service manager keep a copy of `file` until it is forgotten or its other end hangs up. Names are unique.
// False: there is no service manager, or it takes no message at once.
bool keep_descriptor(const std::string& name, int file);
void forget_descriptor(const std::string& name);

} // namespace cli
