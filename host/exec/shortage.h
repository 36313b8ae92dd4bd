// Handles the limits of the process: threads, memory mappings, address space, open files. If a limit is reached, an
// error names it. The process may survive that. If it cannot, a reserve of memory lets the running hosts stop in
// good order.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include "host/result.h"

namespace exec
{

// Thrown when a resource of the process is used up, for example when a thread or a stack cannot be created. It is an
// exception and not a result, because it passes through calls that cannot return an error: kernel calls of modules and
// constructors of services. The code that starts a host catches it (cli/service/running-hosts.cpp). what() is one line
// for people. It names the resource that is used up, and says what to do.
struct shortage : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Call this after another call has failed, perhaps because of a limit of this process. Compares the usage of the
// process with the limits of open files, memory mappings and address space. If a limit is reached, fails (no_memory)
// with an error that names the limit. Any thread.
ats::result<> check_limits();

// Returns the error of check_limits(). If no limit is reached, returns an error (no_memory) with the text
// `unknown_limit`. Any thread.
ats::error shortage_error(const std::string& unknown_limit);

// Throws a shortage with the text of shortage_error().
[[noreturn]] void throw_shortage(const std::string& unknown_limit);

// Starts a thread that runs `body`; the caller joins it. Throws a shortage if no thread can be started.
std::thread new_thread(std::function<void()> body);

// Holds address space and memory mappings in reserve. When `new` finds no memory for the first time, this class
// releases the reserve and calls `use_handler` (if there is one). Then `new` tries again. The process should stop soon
// after that. The handler runs in any thread, at any place. It must not allocate, lock or throw. A process has at most
// one reserve. The constructor throws a shortage if it cannot get the memory.
class reserve
{
  public:
    explicit reserve(void (*use_handler)() = nullptr);
    ~reserve();
    reserve(const reserve&) = delete;
    reserve& operator=(const reserve&) = delete;

    // Releases the reserve without a call of the handler. Call this when the process stops because of a shortage. Any
    // thread.
    static void release();

    // Returns true if the reserve has been released. Any thread.
    static bool is_used();
};

} // namespace exec
