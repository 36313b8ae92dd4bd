// Finds out if a test can mount on this machine.
#pragma once

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "cli/mount/proc-mount.h"
#include "tests/cli/program.h"

// Tries it once, in a process of its own.
inline bool mounts_work()
{
    static const bool works = [] {
        const scratch_folder folder;
        mkdir((folder / "mnt").c_str(), 0755);
        const pid_t trial = fork();
        if (trial == 0) {
            const bool is_mounted = cli::proc_mount::open(folder / "mnt", {}).has_value(); // and unmounts again
            _exit(is_mounted ? 0 : 1);
        }
        int status = 0;
        waitpid(trial, &status, 0);
        return status == 0;
    }();
    return works;
}
