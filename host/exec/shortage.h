// Handles the limits of the process: threads, memory mappings, address space, open files. An error names the limit that
// was reached. A memory reserve is then released. The running hosts need it to stop in good order.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include "host/result.h"

namespace exec
{

// Thrown when a thread, a stack or the reserve cannot be created. It is an exception and not a result, because it
// passes through calls that cannot return an error: kernel calls of modules and constructors of services. The code that
// starts a host catches it. what() is one line. It names the exhausted resource and says what to do.
struct shortage : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Call it after a call that may have failed because of a limit of this process. It compares the usage of the process
// with each limit. If a limit is reached, it releases the reserve and fails (no_memory) with an error that names the
// limit. Any thread.
ats::result<> check_limits();

// Returns the error (no_memory) of check_limits(). If no limit is reached, the text of the error is `unknown_limit`.
// Releases the reserve. Any thread.
ats::error shortage_error(const std::string& unknown_limit);

// Throws a shortage with the text of shortage_error().
[[noreturn]] void throw_shortage(const std::string& unknown_limit);

// Starts a thread that runs `body`; the caller joins it. Throws a shortage if no thread can be started.
std::thread new_thread(std::function<void()> body);

// Holds memory and mappings in reserve. When an allocation with `new` fails, the reserve is released, `use_handler` is
// called (unless it is null), and the allocation is repeated. The process should stop soon after that. The handler runs
// in any thread, at any place. It must not allocate, lock or throw. A process has at most one reserve. The constructor
// throws a shortage if it cannot get the memory.
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
