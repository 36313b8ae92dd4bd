// The addresses that a machine's log shows. The real addresses of a program's memory differ from run to run. Therefore
// a pointer is printed as an address in a nominal layout, and equal runs print equal logs. Pointers are translated only
// when they are printed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

namespace kernel
{

class memory_account;
struct image_part;

// The nominal addresses of a machine's parts.
constexpr uint64_t nominal_allocations = 0xffff880000000000; // blocks of kmalloc, in order of allocation
constexpr uint64_t nominal_unknown = 0xffff8f0000000000;     // stacks and the like, in order of appearance
constexpr uint64_t nominal_objects = 0xffffc90000000000;     // other added memory, in order of addition
constexpr uint64_t nominal_images = 0xffffffffa0000000;      // modules, in order of loading
// Address space for each module; its address does not depend on the size of other modules.
constexpr uint64_t image_room = 0x100000;

class address_layout
{
  public:
    // Finds blocks of kmalloc in `memory`, which must outlive this object.
    explicit address_layout(const memory_account& memory) : memory_(memory) {}
    address_layout(const address_layout&) = delete;
    address_layout& operator=(const address_layout&) = delete;

    // Returns the address to print for a pointer. The pointer need not be valid. Null, and small numbers that were cast
    // to a pointer, do not change. Any thread, any context.
    uint64_t nominal(const void* pointer);

    // Gives memory its own nominal address until it is removed. Remove it before the memory is freed.
    void add_image(const std::vector<image_part>& parts);
    void remove_image(const std::vector<image_part>& parts);
    void add_object(const void* begin, size_t bytes);
    void remove(const void* begin);

  private:
    struct range {
        size_t bytes;
        uint64_t nominal;
    };
    std::optional<uint64_t> find(const char* pointer) const; // the caller holds mutex_

    const memory_account& memory_;
    mutable std::mutex mutex_;            // guards the following members
    std::map<const char*, range> ranges_; // by start address
    size_t image_count_ = 0;
    uint64_t next_image_ = nominal_images;
    uint64_t next_object_ = nominal_objects;
    std::unordered_map<const void*, uint64_t> unknown_pointers_;
    uint64_t next_unknown_ = nominal_unknown;
};

// Adds an object during its lifetime.
class shown_object
{
  public:
    shown_object(address_layout& layout, const void* begin, size_t bytes) : layout_(layout), begin_(begin)
    {
        layout_.add_object(begin, bytes);
    }
    ~shown_object() { layout_.remove(begin_); }
    shown_object(const shown_object&) = delete;
    shown_object& operator=(const shown_object&) = delete;

  private:
    address_layout& layout_;
    const void* const begin_;
};

} // namespace kernel
