#include "host/kernel/random.h"

#include <sys/random.h>

namespace kernel
{

random_source::random_source(uint64_t seed) : from_system_(seed == 0), engine_(seed) {}

void random_source::fill(void* buffer, int count)
{
    auto* bytes = static_cast<unsigned char*>(buffer);
    if (from_system_) {
        for (ssize_t filled = 0; filled < count;) {
            const ssize_t got = getrandom(bytes + filled, static_cast<size_t>(count - filled), 0);
            if (got > 0) filled += got;
        }
        return;
    }
    const std::lock_guard lock(mutex_);
    for (int i = 0; i < count; ++i) bytes[i] = static_cast<unsigned char>(engine_());
}

} // namespace kernel
