// The configuration file of `ats run`: an input is the whole file.
#include <sys/mman.h>
#include <unistd.h>

#include "cli/service/world-config.h"
#include "console/failure.h"
#include "fuzz/one-host.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    static const int file = memfd_create("world.toml", 0);
    static const std::string path = "/proc/self/fd/" + std::to_string(file);
    fuzz::require(ftruncate(file, 0) == 0 && pwrite(file, bytes, size, 0) == static_cast<ssize_t>(size), "no file");
    try {
        const cli::world_config read = cli::read_world_config(path);
        fuzz::require(!read.hosts.empty(), "a configuration without hosts was accepted");
    } catch (const console::failure&) {
        // It said what is wrong.
    }
    return 0;
}
