// Shows every host's /proc tree and log as files, through FUSE.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/kernel/machine.h"
#include "host/result.h"

namespace cli
{

// As long as it lives, DIR/HOST/proc/... are the host's /proc entries, and DIR/HOST/log is its kernel log, which grows
// with every line. If the writer of a /proc entry is interrupted, the kernel call has a pending signal.
class proc_mount
{
  public:
    // Mounts on the folder `directory`. The machines outlive the mount; FUSE's threads call into them. An error says
    // what to do; an unsuitable folder, or a build without libfuse, is invalid.
    static ats::result<std::unique_ptr<proc_mount>> open(const std::string& directory,
                                                         const std::vector<kernel::machine*>& machines);

    // False in a build without libfuse.
    static bool is_available();

    // Waits for the calls in progress, then unmounts.
    virtual ~proc_mount() = default;
};

} // namespace cli
