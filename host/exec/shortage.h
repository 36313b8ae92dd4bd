// Handles the limits of the process: threads, memory mappings, address space, open files. The caller gets
// an exception that names what ran out. A reserve is let go then, so that what runs already can stop in good order.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

namespace exec
{

// what() is one line: what ran out, and what to do about it.
struct shortage : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Throws a shortage if a limit of this process is used up, judged by what the process holds of each. Lets the reserve
// go first.
void throw_if_exhausted();

// The same, but throws a shortage that says `otherwise` if no limit is known to be used up.
[[noreturn]] void throw_shortage(const std::string& otherwise);

// A thread that runs `body`. Throws a shortage when none can be started.
std::thread new_thread(std::function<void()> body);

// Memory and mappings that are set aside as long as this lives. When an allocation with `new` fails, the reserve is let
// go, the allocation is repeated, and `when_used` (or null) is called: the process should stop soon. It runs in any
// thread, anywhere, and must not allocate, lock or throw. One at a time in a process.
class reserve
{
  public:
    explicit reserve(void (*when_used)() = nullptr);
    ~reserve();
    reserve(const reserve&) = delete;
    reserve& operator=(const reserve&) = delete;

    // True once it has been let go.
    static bool is_used();
};

} // namespace exec
