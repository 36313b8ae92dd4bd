// Replaces proc-mount-fuse.cpp in a build without libfuse.

#include "cli/mount/proc-mount.h"

namespace cli
{

ats::result<std::unique_ptr<proc_mount>> proc_mount::open(const std::string&, const std::vector<kernel::machine*>&)
{
    return ats::fail(ats::error_kind::invalid,
                     "this ats was built without libfuse3 and cannot mount: install libfuse3-dev and build it anew, "
                     "or leave --mount out ('ats control' and 'ats log' work without it)");
}

bool proc_mount::is_available()
{
    return false;
}

} // namespace cli
