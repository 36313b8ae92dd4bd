// Fuzzes the reader of the configuration of `ats run`. An input is a whole file.
#include <sys/mman.h>
#include <unistd.h>

#include "cli/service/world-config.h"
#include "fuzz/one-host.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    static const int file = memfd_create("world.toml", 0);
    static const std::string path = "/proc/self/fd/" + std::to_string(file);
    const bool is_written = ftruncate(file, 0) == 0 && pwrite(file, bytes, size, 0) == static_cast<ssize_t>(size);
    fuzz::require(is_written, "the file cannot be written");
    const ats::result<cli::world_config> config = cli::read_world_config(path);
    fuzz::require(!config || !config->hosts.empty(), "a configuration without hosts is valid");
    fuzz::require(config || !config.error().text.empty(), "an error has no text");
    return 0;
}
