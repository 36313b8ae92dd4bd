#include "host/kernel/memory.h"

#include <algorithm>
#include <cstdlib>
#include <functional>

#include "host/kernel/module-image.h"

namespace kernel
{

namespace
{

constexpr size_t nominal_step = 64; // between the addresses that the log shows

} // namespace

memory_account::~memory_account()
{
    for (const auto& [memory, block] : blocks_) std::free(const_cast<void*>(memory));
}

size_t memory_account::blocks() const
{
    const std::lock_guard lock(mutex_);
    return blocks_.size();
}

size_t memory_account::bytes() const
{
    const std::lock_guard lock(mutex_);
    return bytes_;
}

uint64_t memory_account::total_allocations() const
{
    const std::lock_guard lock(mutex_);
    return total_allocations_;
}

std::vector<std::string> memory_account::leaks() const
{
    const std::lock_guard lock(mutex_);
    std::vector<std::string> lines;
    for (const auto& [memory, block] : blocks_)
        lines.push_back(std::to_string(block.size) + " bytes allocated by " +
                        (block.caller_text.empty() ? describe_code(block.caller) : block.caller_text));
    return lines;
}

void memory_account::note_unmapping(const module_code& code)
{
    const std::lock_guard lock(mutex_);
    for (auto& [memory, block] : blocks_)
        if (block.caller_text.empty() && code.holds(block.caller)) block.caller_text = code.place(block.caller);
}

void* memory_account::allocate(size_t size, const void* caller)
{
    void* memory = std::malloc(size);
    if (!memory) return nullptr;
    const std::lock_guard lock(mutex_);
    blocks_[memory] = {size, caller, next_nominal_, ""};
    next_nominal_ += (size / nominal_step + 1) * nominal_step;
    bytes_ += size;
    ++total_allocations_;
    return memory;
}

std::optional<uint64_t> memory_account::nominal(const void* pointer) const
{
    const std::lock_guard lock(mutex_);
    auto entry = blocks_.find(pointer);
    if (entry == blocks_.end())
        entry = std::find_if(blocks_.begin(), blocks_.end(), [pointer](const auto& each) {
            const std::less<const void*> lies_before; // also compares pointers into different blocks
            const void* end = static_cast<const char*>(each.first) + each.second.size;
            return lies_before(each.first, pointer) && lies_before(pointer, end);
        });
    if (entry == blocks_.end()) return std::nullopt;
    const auto offset = static_cast<const char*>(pointer) - static_cast<const char*>(entry->first);
    return entry->second.nominal + static_cast<uint64_t>(offset);
}

bool memory_account::release(const void* memory)
{
    {
        const std::lock_guard lock(mutex_);
        const auto entry = blocks_.find(memory);
        if (entry == blocks_.end()) return false;
        bytes_ -= entry->second.size;
        blocks_.erase(entry);
    }
    std::free(const_cast<void*>(memory));
    return true;
}

} // namespace kernel
