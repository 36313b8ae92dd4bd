// Finds out if this machine allows mounts.
#pragma once

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "cli/mount/proc-mount.h"
#include "tests/cli/program.h"

// At the first call, tries one mount in a separate process. Returns true if this mount succeeded.
inline bool mounts_work()
{
    static const bool works = [] {
        const scratch_folder folder;
        mkdir((folder / "mnt").c_str(), 0755);
        const pid_t trial = fork();
        if (trial == 0) {
            // The destructor of the temporary object unmounts.
            const bool is_mounted = cli::proc_mount::open(folder / "mnt", {}).has_value();
            _exit(is_mounted ? 0 : 1);
        }
        int status = 0;
        waitpid(trial, &status, 0);
        return status == 0;
    }();
    return works;
}
