// The memory that kmalloc allocates on one machine. It is counted, and leaks are listed. A freed block is kept for the
// next one of its size, so a load that repeats itself soon allocates nothing from the process.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/exec/brief-lock.h"
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
    struct block; // the header of a block; the memory for the caller follows it
    struct shelf {
        block* first = nullptr;
        size_t count = 0;
    };

    // The caller of the next calls holds mutex_.
    block* take_block(size_t size);
    void put_block(block* freed);
    void insert(block* added);
    void make_buckets(size_t count);
    block** link_to(const void* memory) const;
    const block* block_around(const void* pointer) const;
    std::vector<const block*> blocks_by_age() const;
    size_t bucket_of(const void* memory) const;

    mutable exec::brief_lock mutex_; // guards the following members
    std::vector<block*> buckets_;    // a hash table of the blocks by their memory; the size is a power of two
    size_t block_count_ = 0;
    size_t bytes_ = 0;
    uint64_t total_allocations_ = 0;
    uint64_t next_nominal_ = nominal_allocations;
    std::unordered_map<const block*, std::string> unmapped_callers_; // names of callers whose image was unmapped

    static constexpr size_t shelf_count = 16;
    std::array<shelf, shelf_count> shelves_; // freed blocks by size
};

} // namespace kernel
