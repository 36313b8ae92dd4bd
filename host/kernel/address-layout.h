// The addresses that a machine's log shows. Where a program's memory lies differs from run to run, so a printed pointer
// is shown as an address in a nominal layout: equal runs then print equal logs. Pointers are translated when they are
// printed, and nothing else is slowed down.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <unordered_map>

namespace kernel
{

class memory_account;

// The nominal addresses of a machine's parts.
constexpr uint64_t nominal_allocations = 0xffff880000000000; // kmalloc's, in order of allocation
constexpr uint64_t nominal_unknown = 0xffff8f0000000000;     // stacks and the like, in order of appearance
constexpr uint64_t nominal_objects = 0xffffc90000000000;     // of the stack, in order of creation
constexpr uint64_t nominal_images = 0xffffffffa0000000;      // modules, in order of loading

class address_layout
{
  public:
    // Allocations are looked up in `memory`.
    explicit address_layout(const memory_account& memory) : memory_(memory) {}
    address_layout(const address_layout&) = delete;
    address_layout& operator=(const address_layout&) = delete;

    // The address to print for a pointer, which need not be valid. Null and small numbers in a pointer's place are
    // shown as they are. Any thread, any context.
    uint64_t nominal(const void* pointer);

    // Memory that has an address of its own as long as it lives. Whoever frees it removes it first.
    void add_image(const void* begin, size_t bytes);
    void add_object(const void* begin, size_t bytes);
    void remove(const void* begin);

  private:
    struct range {
        size_t bytes;
        uint64_t nominal;
        bool is_image;
    };
    bool find(const char* pointer, uint64_t* nominal) const;

    const memory_account& memory_;
    mutable std::mutex mutex_;           // guards the rest
    std::map<const char*, range> added_; // by their beginning
    size_t images_ = 0;
    uint64_t next_image_ = nominal_images;
    uint64_t next_object_ = nominal_objects;
    std::unordered_map<const void*, uint64_t> unknown_;
    uint64_t next_unknown_ = nominal_unknown;
};

// Adds an object for as long as this lives.
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
