// The memory that kmalloc allocates on one machine. Counts the blocks and lists those that were not freed. A limited
// number of small freed blocks is kept and used again for blocks of about the same size. A task that repeats its work
// with small blocks therefore soon needs no further memory from malloc().
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
    ~memory_account(); // also frees the blocks that the machine has not freed
    memory_account(const memory_account&) = delete;
    memory_account& operator=(const memory_account&) = delete;

    // The number of blocks that have not been freed, and their total size.
    size_t blocks() const;
    size_t bytes() const;

    // The number of allocations so far, including those of blocks that have been freed.
    uint64_t total_allocations() const;

    // Returns one line for each block that has not been freed: its size and the code that allocated it. The code is
    // the name of an exported function, or a place in an image for addr2line: "ats+0x1a2b".
    std::vector<std::string> leaks() const;

    // Call it before a module is unmapped. Finds the blocks that the module has not freed, and stores for each of them
    // the place of the code that allocated it. leaks() can then still print this place.
    void note_unmapping(const module_code& code);

    // Allocates a block. Returns null if there is no memory. `caller` is the address of the code that allocates.
    void* allocate(size_t size, const void* caller);

    // Returns the address that the log shows for a pointer into a block, or none if the pointer is outside of all
    // blocks.
    std::optional<uint64_t> nominal(const void* pointer) const;

    // Frees the block that begins at `memory`. Returns false if this machine has no such block.
    bool release(const void* memory);

  private:
    struct block;  // the header of a block; the memory for the caller follows it
    struct shelf { // a list of freed blocks of one size
        block* first = nullptr;
        size_t count = 0;
    };

    // The callers of the next functions hold mutex_.
    block* take_block(size_t size);
    void put_block(block* freed_block);
    void insert(block* new_block);
    void make_buckets(size_t count);
    block** link_to(const void* memory) const;
    const block* block_around(const void* pointer) const;
    std::vector<const block*> blocks_by_age() const;
    size_t bucket_of(const void* memory) const;

    mutable exec::brief_lock mutex_; // guards the following members
    std::vector<block*> buckets_;    // a hash table of the blocks by their address; the size is 0 or a power of two
    size_t block_count_ = 0;
    size_t bytes_ = 0;
    uint64_t total_allocations_ = 0;
    uint64_t next_nominal_ = nominal_allocations;
    std::unordered_map<const block*, std::string> unmapped_callers_; // the places that note_unmapping() has stored

    static constexpr size_t shelf_count = 16;
    std::array<shelf, shelf_count> shelves_; // freed blocks by size
};

} // namespace kernel
