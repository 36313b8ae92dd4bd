// Every host's /proc tree and log as real files, through FUSE.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/kernel/machine.h"

namespace cli
{

// While it lives, DIR/HOST/proc/... are the host's /proc entries and DIR/HOST/log is its kernel log, which grows as
// lines come. A write whose writer is interrupted has a pending signal in the kernel call.
class proc_mount
{
  public:
    // Mounts on the folder `directory`, or throws a failure that says what to do. The machines outlive the mount. Calls
    // come in from FUSE's threads.
    static std::unique_ptr<proc_mount> open(const std::string& directory,
                                            const std::vector<kernel::machine*>& machines);

    // False: built without libfuse, and open() refuses.
    static bool is_available();

    virtual ~proc_mount() = default; // unmounts, after the calls in progress
};

} // namespace cli
