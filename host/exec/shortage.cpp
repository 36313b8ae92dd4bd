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
constexpr size_t reserve_split_pages = 128; // the protection of these pages alternates, so each one is a mapping

// check_limits() runs after a call that has failed and has released what it had. The usage is then a little below the
// limit. Therefore check_limits() adds these margins to the usage.
constexpr size_t mappings_margin = 64;
constexpr size_t bytes_margin = size_t{16} << 20;

std::atomic<void*> reserve_mapping{nullptr};
std::atomic<bool> reserve_was_used{false};
std::atomic<void (*)()> reserve_use_handler{nullptr};

// Returns false if there is no reserve, or if it was already released.
bool release_reserve()
{
    void* mapping = reserve_mapping.exchange(nullptr);
    if (!mapping) return false;
    reserve_was_used = true;
    munmap(mapping, reserve_bytes);
    return true;
}

// The std::new_handler of the process. operator new calls it after a failure, and then repeats the allocation.
void use_reserve()
{
    if (!release_reserve()) throw std::bad_alloc();
    void (*use_handler)() = reserve_use_handler;
    if (use_handler) use_handler();
}

// Reads a file and passes each piece to `take(begin, end)`. Allocates no memory, because the memory may be used up.
// Returns false if the file cannot be opened; errno has the reason.
template <class take_t>
bool read_file(const char* path, const take_t& take)
{
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) return false;
    char piece[4096];
    for (;;) {
        const ssize_t length = read(file, piece, sizeof piece);
        if (length <= 0) break;
        take(piece, piece + length);
    }
    close(file);
    return true;
}

// Returns the decimal number at the start of a file, or 0 if there is none.
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

// Tries to open a file. Returns 0, or the error number if a limit forbids it: EMFILE for the limit of this process,
// ENFILE for that of the machine.
int descriptor_shortage()
{
    if (read_file("/dev/null", [](const char*, const char*) {})) return 0;
    return errno == EMFILE || errno == ENFILE ? errno : 0;
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
    rlimit stack{}; // the stack size of a new thread: perhaps the failed call tried to start a thread
    getrlimit(RLIMIT_STACK, &stack);
    const size_t stack_bytes = stack.rlim_cur == RLIM_INFINITY ? 0 : stack.rlim_cur;
    const size_t mapped_bytes = first_number_in("/proc/self/statm") * static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return mapped_bytes + stack_bytes + bytes_margin >= limit.rlim_cur;
}

} // namespace

ats::result<> check_limits()
{
    const size_t mappings_limit = first_number_in("/proc/sys/vm/max_map_count");
    const bool lacks_mappings = mappings_are_used_up(mappings_limit);
    rlimit address_space{};
    getrlimit(RLIMIT_AS, &address_space);
    const bool lacks_address_space = address_space_is_used_up(address_space);
    const int lack_of_descriptors = descriptor_shortage();
    if (lack_of_descriptors == ENFILE)
        return ats::fail(
            ats::error_kind::no_memory,
            "no more files can be opened on this machine: raise fs.file-max with sysctl, or run fewer hosts");
    if (lack_of_descriptors == EMFILE) {
        rlimit files{};
        getrlimit(RLIMIT_NOFILE, &files);
        return ats::fail(ats::error_kind::no_memory,
                         "no more files can be opened (the limit is " + std::to_string(files.rlim_cur) +
                             "): raise it (ulimit -n, LimitNOFILE= of a unit), or run fewer hosts");
    }
    if (lacks_mappings)
        return ats::fail(ats::error_kind::no_memory, "no more memory mappings are allowed (vm.max_map_count is " +
                                                         std::to_string(mappings_limit) +
                                                         "): raise it with sysctl, or run fewer hosts");
    if (lacks_address_space)
        return ats::fail(ats::error_kind::no_memory,
                         "the address space is used up (the limit is " + std::to_string(address_space.rlim_cur >> 20) +
                             " MiB): raise it (ulimit -v, LimitAS= of a unit), or run fewer hosts");
    return {};
}

ats::error shortage_error(const std::string& unknown_limit)
{
    if (const ats::result<> limits = check_limits(); !limits) return limits.error();
    return {ats::error_kind::no_memory, unknown_limit};
}

void throw_shortage(const std::string& unknown_limit)
{
    throw shortage(shortage_error(unknown_limit).text);
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

reserve::reserve(void (*use_handler)())
{
    void* mapping = mmap(nullptr, reserve_bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapping == MAP_FAILED) throw_shortage("the memory is used up: raise the limit (ulimit -v, LimitAS= of a unit)");
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    for (size_t i = 0; i < reserve_split_pages; i += 2)
        if (mprotect(static_cast<char*>(mapping) + i * page, page, PROT_READ) != 0) break;
    reserve_mapping = mapping;
    reserve_was_used = false;
    reserve_use_handler = use_handler;
    std::set_new_handler(use_reserve);
}

reserve::~reserve()
{
    std::set_new_handler(nullptr);
    reserve_use_handler = nullptr;
    if (void* mapping = reserve_mapping.exchange(nullptr)) munmap(mapping, reserve_bytes);
}

void reserve::release()
{
    release_reserve();
}

bool reserve::is_used()
{
    return reserve_was_used;
}

} // namespace exec
