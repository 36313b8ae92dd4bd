#include "host/exec/shortage.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <new>
#include <sys/mman.h>
#include <sys/resource.h>
#include <system_error>
#include <unistd.h>

namespace exec
{

namespace
{

constexpr size_t reserve_bytes = size_t{32} << 20;
constexpr size_t reserve_pages_split = 128; // neighbours of unlike protection: each counts as a mapping

// A failed call has released what it had taken before it failed. So usage is read a little below the limit.
constexpr size_t mappings_margin = 64;
constexpr size_t bytes_margin = size_t{16} << 20;

std::atomic<void*> reserved{nullptr};
std::atomic<bool> reserve_was_used{false};
std::atomic<void (*)()> on_use{nullptr};

// False: there is none any more.
bool let_reserve_go()
{
    void* mapping = reserved.exchange(nullptr);
    if (!mapping) return false;
    reserve_was_used = true;
    munmap(mapping, reserve_bytes);
    return true;
}

// The process's std::new_handler: it returns to have the allocation repeated.
void use_reserve()
{
    if (!let_reserve_go()) throw std::bad_alloc();
    if (void (*notify)() = on_use) notify();
}

// Reads a file without allocating, as memory may be what is missing. False: it cannot be opened.
template <class take_t>
bool read_file(const char* path, const take_t& take)
{
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) return false;
    char piece[4096];
    ssize_t got;
    while ((got = read(file, piece, sizeof piece)) > 0) take(piece, piece + got);
    close(file);
    return true;
}

size_t first_number_in(const char* path)
{
    size_t number = 0;
    bool is_over = false;
    read_file(path, [&](const char* begin, const char* end) {
        for (; begin != end && !is_over; ++begin)
            if (*begin >= '0' && *begin <= '9')
                number = number * 10 + static_cast<size_t>(*begin - '0');
            else
                is_over = true;
    });
    return number;
}

bool descriptors_are_used_up()
{
    if (read_file("/dev/null", [](const char*, const char*) {})) return false;
    return errno == EMFILE || errno == ENFILE;
}

bool mappings_are_used_up(size_t limit)
{
    size_t count = mappings_margin;
    read_file("/proc/self/maps",
              [&](const char* begin, const char* end) { count += static_cast<size_t>(std::count(begin, end, '\n')); });
    return limit > 0 && count >= limit;
}

bool address_space_is_used_up(const rlimit& limit)
{
    if (limit.rlim_cur == RLIM_INFINITY) return false;
    rlimit stack{}; // of a thread
    getrlimit(RLIMIT_STACK, &stack);
    const size_t stack_bytes = stack.rlim_cur == RLIM_INFINITY ? 0 : stack.rlim_cur;
    const size_t held = first_number_in("/proc/self/statm") * static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return held + stack_bytes + bytes_margin >= limit.rlim_cur;
}

// Says which limit is used up, and what to do; "": none is known to be.
std::string exhausted_limit()
{
    const size_t mappings_limit = first_number_in("/proc/sys/vm/max_map_count");
    const bool lacks_mappings = mappings_are_used_up(mappings_limit);
    rlimit address_space{};
    getrlimit(RLIMIT_AS, &address_space);
    const bool lacks_address_space = address_space_is_used_up(address_space);
    const bool lacks_descriptors = descriptors_are_used_up();
    if (lacks_mappings || lacks_address_space || lacks_descriptors) let_reserve_go();
    if (lacks_descriptors) {
        rlimit files{};
        getrlimit(RLIMIT_NOFILE, &files);
        return "no more files can be opened (the limit is " + std::to_string(files.rlim_cur) +
               "): raise it (ulimit -n, LimitNOFILE= of a unit), or run fewer hosts";
    }
    if (lacks_mappings)
        return "no more memory mappings are allowed (vm.max_map_count is " + std::to_string(mappings_limit) +
               "): raise it with sysctl, or run fewer hosts";
    if (lacks_address_space)
        return "the address space is used up (the limit is " + std::to_string(address_space.rlim_cur >> 20) +
               " MiB): raise it (ulimit -v, LimitAS= of a unit), or run fewer hosts";
    return "";
}

} // namespace

void throw_if_exhausted()
{
    const std::string limit = exhausted_limit();
    if (!limit.empty()) throw shortage(limit);
}

void throw_shortage(const std::string& otherwise)
{
    throw_if_exhausted();
    let_reserve_go();
    throw shortage(otherwise);
}

std::thread new_thread(std::function<void()> body)
{
    try {
        return std::thread(std::move(body));
    } catch (const std::system_error&) {
        throw_shortage("no more threads can be started: raise the limit (ulimit -u, TasksMax= of a unit), or run "
                       "fewer hosts");
    }
}

reserve::reserve(void (*when_used)())
{
    void* mapping = mmap(nullptr, reserve_bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapping == MAP_FAILED) throw_shortage("the memory is used up: raise the limit (ulimit -v, LimitAS= of a unit)");
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    for (size_t i = 0; i < reserve_pages_split; i += 2)
        if (mprotect(static_cast<char*>(mapping) + i * page, page, PROT_READ) != 0) break;
    reserved = mapping;
    reserve_was_used = false;
    on_use = when_used;
    std::set_new_handler(use_reserve);
}

reserve::~reserve()
{
    std::set_new_handler(nullptr);
    on_use = nullptr;
    if (void* mapping = reserved.exchange(nullptr)) munmap(mapping, reserve_bytes);
}

bool reserve::is_used()
{
    return reserve_was_used;
}

} // namespace exec
