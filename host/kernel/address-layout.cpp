#include "host/kernel/address-layout.h"

#include "host/kernel/memory.h"

namespace kernel
{

namespace
{

constexpr uintptr_t lowest_address = 0x10000; // no program has anything below
constexpr uint64_t page_bytes = 4096;
constexpr size_t most_unknown = 4096; // then they are forgotten, and get new addresses when they appear again

uint64_t whole_pages(size_t bytes)
{
    return (bytes + page_bytes - 1) / page_bytes * page_bytes;
}

} // namespace

uint64_t address_layout::nominal(const void* pointer)
{
    const auto value = reinterpret_cast<uintptr_t>(pointer);
    if (value < lowest_address) return value;
    uint64_t found = 0;
    {
        const std::lock_guard lock(mutex_);
        if (find(static_cast<const char*>(pointer), &found)) return found;
    }
    if (memory_.find_nominal(pointer, &found)) return found;
    const std::lock_guard lock(mutex_);
    if (unknown_.size() == most_unknown) unknown_.clear();
    const auto [entry, is_new] = unknown_.try_emplace(pointer, next_unknown_);
    if (is_new) next_unknown_ += page_bytes;
    return entry->second;
}

void address_layout::add_image(const void* begin, size_t bytes)
{
    const std::lock_guard lock(mutex_);
    added_[static_cast<const char*>(begin)] = {bytes, next_image_, true};
    ++images_;
    next_image_ += whole_pages(bytes);
}

void address_layout::add_object(const void* begin, size_t bytes)
{
    const std::lock_guard lock(mutex_);
    added_[static_cast<const char*>(begin)] = {bytes, next_object_, false};
    next_object_ += whole_pages(bytes);
}

void address_layout::remove(const void* begin)
{
    const std::lock_guard lock(mutex_);
    const auto found = added_.find(static_cast<const char*>(begin));
    if (found == added_.end()) return;
    if (found->second.is_image && --images_ == 0) next_image_ = nominal_images;
    added_.erase(found);
}

bool address_layout::find(const char* pointer, uint64_t* nominal) const
{
    auto after = added_.upper_bound(pointer);
    if (after == added_.begin()) return false;
    const auto& [begin, found] = *--after;
    const auto offset = static_cast<size_t>(pointer - begin);
    if (offset >= found.bytes) return false;
    *nominal = found.nominal + offset;
    return true;
}

} // namespace kernel
