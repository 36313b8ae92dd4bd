#include "host/kernel/random.h"

#include <sys/random.h>

namespace kernel
{

random_source::random_source(uint64_t seed) : uses_system_(seed == 0), engine_(seed) {}

void random_source::fill(void* buffer, int count)
{
    auto* bytes = static_cast<unsigned char*>(buffer);
    if (uses_system_) {
        ssize_t position = 0;
        while (position < count) {
            const ssize_t length = getrandom(bytes + position, static_cast<size_t>(count - position), 0);
            if (length > 0) position += length;
        }
        return;
    }
    const std::lock_guard lock(mutex_);
    for (int i = 0; i < count; ++i) bytes[i] = static_cast<unsigned char>(engine_());
}

} // namespace kernel
