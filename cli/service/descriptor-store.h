// Keeps file descriptors open after the end of this process. The service manager stores copies of them and passes the
// copies to the next process of the service (FDSTORE=1 of sd_notify(3), LISTEN_FDS of sd_listen_fds(3)). Without a
// service manager, nothing is stored. Any thread may call these functions.
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

// Returns the descriptors that earlier processes of the service have stored. A second call returns none. The call
// changes the environment, so make it before other threads read the environment.
std::vector<kept_descriptor> take_kept_descriptors();

// keep_descriptor() asks the service manager to store a copy of `file`. The manager closes the copy after
// forget_descriptor(), or when the other end of `file` is closed. `name` must be unique. Returns false if there is no
// service manager, or if it does not accept the message within 0.1 seconds.
bool keep_descriptor(const std::string& name, int file);
void forget_descriptor(const std::string& name);

} // namespace cli
