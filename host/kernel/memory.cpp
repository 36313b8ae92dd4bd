#include "host/kernel/memory.h"

#include <algorithm>
#include <cstdlib>
#include <dlfcn.h>
#include <functional>
#include <link.h>

#include "host/kernel/module-image.h"

namespace kernel
{

namespace
{

constexpr size_t allocation_step = 64; // between the addresses that the log shows

std::string describe(const void* code)
{
    Dl_info found{};
    void* extra = nullptr;
    if (dladdr1(code, &found, &extra, RTLD_DL_SYMENT) == 0) return "unknown code";
    const auto* symbol = static_cast<const ElfW(Sym)*>(extra);
    // The nearest exported symbol may be another function's than the caller's.
    const bool is_inside =
        symbol && static_cast<const char*>(code) < static_cast<const char*>(found.dli_saddr) + symbol->st_size;
    return is_inside ? found.dli_sname : text_of_place(found.dli_fname, code, found.dli_fbase);
}

} // namespace

memory_account::~memory_account()
{
    for (const auto& [memory, held] : live_) std::free(const_cast<void*>(memory));
}

size_t memory_account::blocks() const
{
    const std::lock_guard lock(mutex_);
    return live_.size();
}

size_t memory_account::bytes() const
{
    const std::lock_guard lock(mutex_);
    return bytes_;
}

uint64_t memory_account::total_allocations() const
{
    const std::lock_guard lock(mutex_);
    return total_;
}

std::vector<std::string> memory_account::leaks() const
{
    const std::lock_guard lock(mutex_);
    std::vector<std::string> lines;
    for (const auto& [memory, held] : live_)
        lines.push_back(std::to_string(held.size) + " bytes allocated by " +
                        (held.caller_was.empty() ? describe(held.caller) : held.caller_was));
    return lines;
}

void memory_account::image_leaves(const module_code& leaving)
{
    const std::lock_guard lock(mutex_);
    for (auto& [memory, held] : live_)
        if (held.caller_was.empty() && leaving.holds(held.caller)) held.caller_was = leaving.place(held.caller);
}

void* memory_account::allocate(size_t size, const void* caller)
{
    void* memory = std::malloc(size);
    if (!memory) return nullptr;
    const std::lock_guard lock(mutex_);
    live_[memory] = {size, caller, next_nominal_, ""};
    next_nominal_ += (size / allocation_step + 1) * allocation_step;
    bytes_ += size;
    ++total_;
    return memory;
}

bool memory_account::find_nominal(const void* pointer, uint64_t* nominal) const
{
    const std::lock_guard lock(mutex_);
    auto found = live_.find(pointer);
    if (found == live_.end())
        found = std::find_if(live_.begin(), live_.end(), [pointer](const auto& entry) {
            const std::less<const void*> lies_before;
            const void* end = static_cast<const char*>(entry.first) + entry.second.size;
            return lies_before(entry.first, pointer) && lies_before(pointer, end);
        });
    if (found == live_.end()) return false;
    const auto offset = static_cast<const char*>(pointer) - static_cast<const char*>(found->first);
    *nominal = found->second.nominal + static_cast<uint64_t>(offset);
    return true;
}

bool memory_account::release(const void* memory)
{
    {
        const std::lock_guard lock(mutex_);
        const auto found = live_.find(memory);
        if (found == live_.end()) return false;
        bytes_ -= found->second.size;
        live_.erase(found);
    }
    std::free(const_cast<void*>(memory));
    return true;
}

} // namespace kernel
