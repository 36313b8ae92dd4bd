// Handles the limits of the process: threads, memory mappings, address space, open files. An error names the limit that
// was reached. A reserve is released then, so that the running hosts can stop in good order.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include "host/result.h"

namespace exec
{

// Thrown when a thread, a stack or the reserve cannot be had. An exception, because it passes through many calls that
// cannot report it, as std::bad_alloc does: kernel calls of modules, constructors of services. Whoever starts a host
// catches it. what() is one line: what ran out, and what to do about it.
struct shortage : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Call it when a call has failed that may have met a limit of this process. Fails (no_memory) with the limit that is
// used up, judged by how much of it the process holds; the reserve is released then. Any thread.
ats::result<> check_limits();

// The error (no_memory) for a call that has met a limit of this process: the one that check_limits() finds, otherwise
// `unknown_limit`. Releases the reserve. Any thread.
ats::error shortage_error(const std::string& unknown_limit);

// Throws the same as a shortage.
[[noreturn]] void throw_shortage(const std::string& unknown_limit);

// A thread that runs `body`; the caller joins it. Throws a shortage when none can be started.
std::thread new_thread(std::function<void()> body);

// Memory and mappings that are set aside as long as this lives. When an allocation with `new` fails, the reserve is
// released, the allocation is repeated, and `use_handler` (or null) is called: the process should stop soon. It runs in
// any thread, anywhere, and must not allocate, lock or throw. At most one reserve exists in a process. Throws a
// shortage when it cannot be set aside.
class reserve
{
  public:
    explicit reserve(void (*use_handler)() = nullptr);
    ~reserve();
    reserve(const reserve&) = delete;
    reserve& operator=(const reserve&) = delete;

    // True once it has been released. Any thread.
    static bool is_used();
};

} // namespace exec
