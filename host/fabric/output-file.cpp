#include "host/fabric/output-file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fabric
{

namespace
{

constexpr mode_t everyone_may_read_and_write = 0666; // the umask takes away what the user does not want

bool is_file_or_character_device(int descriptor)
{
    struct stat attributes {
    };
    return fstat(descriptor, &attributes) == 0 && (S_ISREG(attributes.st_mode) || S_ISCHR(attributes.st_mode));
}

} // namespace

ats::result<std::FILE*> open_output_file(const std::string& path)
{
    // With O_NONBLOCK, the open of a FIFO without a reader fails with ENXIO, and that of a terminal does not wait.
    const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                                everyone_may_read_and_write);
    if (descriptor < 0 && errno != ENXIO) return ats::fail(ats::error_kind::invalid, std::strerror(errno));
    const bool is_usable = descriptor >= 0 && is_file_or_character_device(descriptor) &&
                           fcntl(descriptor, F_SETFL, O_WRONLY) == 0; // its writes may wait
    std::FILE* const file = is_usable ? fdopen(descriptor, "w") : nullptr;
    if (file) return file;
    if (descriptor >= 0) close(descriptor);
    return ats::fail(ats::error_kind::invalid, "it must be a regular file or a character device");
}

} // namespace fabric
