// The memory that kmalloc allocates on one machine. It is counted, and leaks are listed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory_resource>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/kernel/address-layout.h"

namespace kernel
{

class module_code;

// Any thread, any context.
class memory_account
{
  public:
    memory_account() = default;
    ~memory_account(); // frees the blocks that leaked
    memory_account(const memory_account&) = delete;
    memory_account& operator=(const memory_account&) = delete;

    // The number of blocks that have not been freed, and their total size.
    size_t blocks() const;
    size_t bytes() const;

    // The number of all blocks allocated so far.
    uint64_t total_allocations() const;

    // One line for each block that has not been freed: its size and the code that allocated it. The code is a symbol,
    // or a place in its image for addr2line: "ats+0x1a2b".
    std::vector<std::string> leaks() const;

    // Call it before an image is unmapped. Stores the module's name for the blocks that its code has allocated.
    void note_unmapping(const module_code& code);

    // Returns null if there is no memory. `caller` is the code that allocates.
    void* allocate(size_t size, const void* caller);

    // Returns the address that the log shows for a pointer into a block, or none if the pointer is outside of all
    // blocks.
    std::optional<uint64_t> nominal(const void* pointer) const;

    // Frees a block. Returns false if this machine has no such block.
    bool release(const void* memory);

  private:
    struct block {
        size_t size;
        const void* caller;
        uint64_t nominal;        // the address that the log shows
        std::string caller_text; // names the caller after its image was unmapped; otherwise empty
    };
    mutable std::mutex mutex_;                     // guards the following members
    std::pmr::unsynchronized_pool_resource nodes_; // memory for the map, which changes with every call
    std::pmr::unordered_map<const void*, block> blocks_{&nodes_};
    size_t bytes_ = 0;
    uint64_t total_allocations_ = 0;
    uint64_t next_nominal_ = nominal_allocations;
};

} // namespace kernel
