// Computes the addresses that a machine's log shows. The real addresses of a program's memory differ from run to run.
// Therefore printk prints a pointer as an address in a nominal layout, and equal runs print equal logs. All other code
// uses the real addresses.
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

// Where the nominal addresses of each kind of memory begin.
constexpr uint64_t nominal_allocations = 0xffff880000000000; // blocks of kmalloc, in order of allocation
constexpr uint64_t nominal_unknown = 0xffff8f0000000000;     // stacks and other memory, in order of first printing
constexpr uint64_t nominal_objects = 0xffffc90000000000;     // memory of add_object(), in order of the calls
constexpr uint64_t nominal_images = 0xffffffffa0000000;      // modules, in order of loading

// Each module gets a multiple of this many bytes of address space. If a module grows a little, the addresses of later
// modules therefore do not change.
constexpr uint64_t image_room = 0x100000;

class address_layout
{
  public:
    // `memory` knows the blocks of kmalloc. It must outlive this object.
    explicit address_layout(const memory_account& memory) : memory_(memory) {}
    address_layout(const address_layout&) = delete;
    address_layout& operator=(const address_layout&) = delete;

    // Returns the address to print for a pointer. The pointer need not be valid. Null, and small numbers that were cast
    // to a pointer, do not change. Any thread, any context.
    uint64_t nominal(const void* pointer);

    // add_image() and add_object() give memory a nominal address of its own. remove_image() and remove() take this
    // address back; call them before the memory is freed. Any thread.
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

// Gives memory a nominal address of its own for as long as the shown_object exists.
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
