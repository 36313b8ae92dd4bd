// Shows the /proc tree and the log of every host as files, through FUSE.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/kernel/machine.h"
#include "host/result.h"

namespace cli
{

// During its lifetime, DIR/HOST/proc/... are the host's /proc entries, and DIR/HOST/log is its kernel log, which grows
// with every line. If the writer of a /proc entry is interrupted, the kernel call has a pending signal.
class proc_mount
{
  public:
    // Mounts on the folder `directory`. The machines must outlive the mount, because FUSE's threads call into them. The
    // error says what to do. An unsuitable folder, or a build without libfuse, is invalid.
    static ats::result<std::unique_ptr<proc_mount>> open(const std::string& directory,
                                                         const std::vector<kernel::machine*>& machines);

    // Returns false in a build without libfuse.
    static bool is_available();

    // Waits for the calls in progress, then unmounts.
    virtual ~proc_mount() = default;
};

} // namespace cli
