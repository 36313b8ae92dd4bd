// Shows the /proc tree and the log of every host as files, through FUSE.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/kernel/machine.h"
#include "host/result.h"

namespace cli
{

// While this object exists, DIR/HOST/proc/... are the host's /proc entries, and DIR/HOST/log is its kernel log, which
// grows with every line. If a signal interrupts a program that writes to a /proc entry, the host's task that executes
// the write gets a signal, too.
class proc_mount
{
  public:
    // Mounts on the folder `directory`. The machines must outlive the mount, because FUSE's threads call into them.
    // Fails (invalid) if FUSE cannot mount on the folder, or in a build without libfuse; this error says what to do.
    // Fails (no_memory) if the thread that serves the files cannot be created.
    static ats::result<std::unique_ptr<proc_mount>> open(const std::string& directory,
                                                         const std::vector<kernel::machine*>& machines);

    // Returns true in a build with libfuse.
    static bool is_available();

    // Waits for the calls in progress, then unmounts.
    virtual ~proc_mount() = default;
};

} // namespace cli
