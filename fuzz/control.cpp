// Fuzzes the control file of ats. An input is the text of one write to the file.
#include "fuzz/one-host.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    static fuzz::one_host host;
    const std::string text(reinterpret_cast<const char*>(bytes), size);
    host.machine().enter("writer", [&] {
        const int result = host.machine().proc.write(console::control_file, text);
        fuzz::require(result == static_cast<int>(size), "a write was not accepted as a whole");
    });
    host.check();
    return 0;
}
