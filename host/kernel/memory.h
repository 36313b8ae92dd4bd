// Accounted kernel memory: one door that counts, fails on demand and knows what leaked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory_resource>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/kernel/address-layout.h"

namespace kernel
{

class module_code;

class memory_account
{
  public:
    memory_account() = default;
    ~memory_account(); // frees what leaked
    memory_account(const memory_account&) = delete;
    memory_account& operator=(const memory_account&) = delete;

    // What kmalloc asked for and has not freed.
    size_t blocks() const;
    size_t bytes() const;
    uint64_t total_allocations() const;

    // One line per block still held: its size and the code that asked for it, a symbol or an offset into its image:
    // "ats+0x1a2b", as addr2line takes it.
    std::vector<std::string> leaks() const;

    // The image is about to be unmapped: blocks it asked for are listed under the module's name.
    void image_leaves(const module_code& leaving);

    void* allocate(size_t size, const void* caller);

    // The address that the log shows for a pointer to or into a live block. False: it points into none.
    bool find_nominal(const void* pointer, uint64_t* nominal) const;

    bool release(const void* memory); // false: not a live block of this machine

  private:
    struct block {
        size_t size;
        const void* caller;
        uint64_t nominal;       // the address that the log shows
        std::string caller_was; // once the caller's image has gone
    };
    mutable std::mutex mutex_;
    std::pmr::unsynchronized_pool_resource nodes_; // of the map, which changes with every call
    std::pmr::unordered_map<const void*, block> live_{&nodes_};
    size_t bytes_ = 0;
    uint64_t total_ = 0;
    uint64_t next_nominal_ = nominal_allocations;
};

} // namespace kernel
