// The control file: an input is one write.
#include "fuzz/one-host.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    static fuzz::one_host at;
    const std::string written(reinterpret_cast<const char*>(bytes), size);
    at.machine().enter("writer", [&] {
        const int taken = at.machine().proc.write("dorvex/ats/control", written);
        fuzz::require(taken == static_cast<int>(size), "a write was not taken whole");
    });
    at.check();
    return 0;
}
