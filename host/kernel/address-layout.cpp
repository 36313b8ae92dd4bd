#include "host/kernel/address-layout.h"

#include <algorithm>
#include <iterator>

#include "host/kernel/memory.h"
#include "host/kernel/module-image.h"

namespace kernel
{

namespace
{

constexpr uintptr_t lowest_address = 0x10000; // no program has memory below it
constexpr uint64_t page_bytes = 4096;

// The largest number of unknown pointers that a layout stores. When it is reached, the layout forgets all of them. A
// forgotten pointer gets a new nominal address when it is printed again.
constexpr size_t max_unknown = 4096;

uint64_t round_up(size_t bytes, uint64_t unit)
{
    return (bytes + unit - 1) / unit * unit;
}

} // namespace

uint64_t address_layout::nominal(const void* pointer)
{
    const auto value = reinterpret_cast<uintptr_t>(pointer);
    if (value < lowest_address) return value;
    {
        const std::lock_guard lock(mutex_);
        if (const auto address = find(static_cast<const char*>(pointer))) return *address;
    }
    if (const auto address = memory_.nominal(pointer)) return *address;
    const std::lock_guard lock(mutex_);
    if (unknown_pointers_.size() == max_unknown) unknown_pointers_.clear();
    const auto [entry, is_new] = unknown_pointers_.try_emplace(pointer, next_unknown_);
    if (is_new) next_unknown_ += page_bytes;
    return entry->second;
}

void address_layout::add_image(const std::vector<image_part>& parts)
{
    const std::lock_guard lock(mutex_);
    size_t bytes = 0;
    for (const image_part& each : parts) {
        ranges_[static_cast<const char*>(each.begin)] = {each.bytes, next_image_ + each.usual_offset};
        bytes = std::max(bytes, each.usual_offset + each.bytes);
    }
    ++image_count_;
    next_image_ += round_up(bytes, image_room);
}

void address_layout::remove_image(const std::vector<image_part>& parts)
{
    const std::lock_guard lock(mutex_);
    for (const image_part& each : parts) ranges_.erase(static_cast<const char*>(each.begin));
    if (--image_count_ == 0) next_image_ = nominal_images;
}

void address_layout::add_object(const void* begin, size_t bytes)
{
    const std::lock_guard lock(mutex_);
    ranges_[static_cast<const char*>(begin)] = {bytes, next_object_};
    next_object_ += round_up(bytes, page_bytes);
}

void address_layout::remove(const void* begin)
{
    const std::lock_guard lock(mutex_);
    ranges_.erase(static_cast<const char*>(begin));
}

std::optional<uint64_t> address_layout::find(const char* pointer) const
{
    const auto next = ranges_.upper_bound(pointer);
    if (next == ranges_.begin()) return std::nullopt;
    const auto& [begin, range] = *std::prev(next);
    const auto offset = static_cast<size_t>(pointer - begin);
    if (offset >= range.bytes) return std::nullopt;
    return range.nominal + offset;
}

} // namespace kernel
