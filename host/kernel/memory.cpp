#include "host/kernel/memory.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <utility>

#include "host/exec/sanitizers.h"
#include "host/kernel/module-image.h"

namespace kernel
{

namespace
{

constexpr size_t nominal_step = 64; // the address that the log shows for a block is a multiple of this
constexpr size_t shelf_step = 64;   // shelf n keeps freed blocks with room for n * shelf_step bytes
constexpr size_t first_buckets = 16;

// The largest number of freed blocks on a shelf. The address sanitizer reports the use of a freed block only if the
// block was really given back to malloc(). Therefore the shelves stay empty under this sanitizer.
#ifdef __SANITIZE_ADDRESS__
constexpr size_t shelf_capacity = 0;
#else
constexpr size_t shelf_capacity = 64;
#endif

size_t shelf_of(size_t size)
{
    return (size + shelf_step - 1) / shelf_step;
}

} // namespace

struct alignas(std::max_align_t) memory_account::block {
    block* next; // the next block in the same bucket or on the same shelf
    size_t size;
    const void* caller; // the code that has allocated the block
    uint64_t nominal;   // the address that the log shows

    void* memory() { return this + 1; }
    const char* begin() const { return reinterpret_cast<const char*>(this + 1); }
};

memory_account::~memory_account()
{
    const auto free_all = [](block* each) {
        while (each) std::free(std::exchange(each, each->next));
    };
    for (block* first : buckets_) free_all(first);
    for (const shelf& each : shelves_) free_all(each.first);
}

size_t memory_account::blocks() const
{
    const std::lock_guard lock(mutex_);
    return block_count_;
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
    for (const block* each : blocks_by_age()) {
        const auto unmapped_caller = unmapped_callers_.find(each);
        lines.push_back(
            std::to_string(each->size) + " bytes allocated by " +
            (unmapped_caller == unmapped_callers_.end() ? describe_code(each->caller) : unmapped_caller->second));
    }
    return lines;
}

void memory_account::note_unmapping(const module_code& code)
{
    const std::lock_guard lock(mutex_);
    for (const block* each : blocks_by_age())
        if (!unmapped_callers_.contains(each) && code.holds(each->caller))
            unmapped_callers_[each] = code.place(each->caller);
}

void* memory_account::allocate(size_t size, const void* caller)
{
    const std::lock_guard lock(mutex_);
    block* new_block = take_block(size);
    if (!new_block) return nullptr;
    *new_block = {.next = nullptr, .size = size, .caller = caller, .nominal = next_nominal_};
    insert(new_block);
    next_nominal_ += (size / nominal_step + 1) * nominal_step;
    bytes_ += size;
    ++total_allocations_;
    return new_block->memory();
}

std::optional<uint64_t> memory_account::nominal(const void* pointer) const
{
    const std::lock_guard lock(mutex_);
    const block* block = buckets_.empty() ? nullptr : *link_to(pointer);
    if (!block) block = block_around(pointer);
    if (!block) return std::nullopt;
    return block->nominal + static_cast<uint64_t>(static_cast<const char*>(pointer) - block->begin());
}

bool memory_account::release(const void* memory)
{
    const std::lock_guard lock(mutex_);
    if (buckets_.empty()) return false;
    block** link = link_to(memory);
    block* freed_block = *link;
    if (!freed_block) return false;
    *link = freed_block->next;
    --block_count_;
    bytes_ -= freed_block->size;
    if (!unmapped_callers_.empty()) unmapped_callers_.erase(freed_block);
    put_block(freed_block);
    return true;
}

// Returns a block with an uninitialised header, or null if there is no memory.
memory_account::block* memory_account::take_block(size_t size)
{
    if (size > PTRDIFF_MAX) return nullptr; // otherwise sizeof(block) + size may overflow
    const size_t number = shelf_of(size);
    if (number >= shelf_count) return static_cast<block*>(std::malloc(sizeof(block) + size));
    shelf& shelf = shelves_[number];
    if (!shelf.first) return static_cast<block*>(std::malloc(sizeof(block) + number * shelf_step));
    --shelf.count;
    return std::exchange(shelf.first, shelf.first->next);
}

void memory_account::put_block(block* freed_block)
{
    const size_t number = shelf_of(freed_block->size);
    if (number >= shelf_count || shelves_[number].count >= shelf_capacity) return std::free(freed_block);
    freed_block->next = std::exchange(shelves_[number].first, freed_block);
    ++shelves_[number].count;
}

void memory_account::insert(block* new_block)
{
    if (block_count_ == buckets_.size()) make_buckets(buckets_.empty() ? first_buckets : 2 * buckets_.size());
    ++block_count_;
    new_block->next = std::exchange(buckets_[bucket_of(new_block->memory())], new_block);
}

void memory_account::make_buckets(size_t count)
{
    const std::vector<block*> blocks_before = std::exchange(buckets_, std::vector<block*>(count));
    for (block* each : blocks_before) {
        while (block* moved = each) {
            each = each->next;
            moved->next = std::exchange(buckets_[bucket_of(moved->memory())], moved);
        }
    }
}

size_t memory_account::bucket_of(const void* memory) const
{
    constexpr uint64_t spread = 0x9E3779B97F4A7C15u; // Fibonacci hashing
    return (reinterpret_cast<uintptr_t>(memory) * spread >> 32) & (buckets_.size() - 1);
}

// Returns the link that points to the block beginning at `memory`, or the null link at the end of the bucket. Does not
// read the memory, so the pointer may be invalid. buckets_ must not be empty.
memory_account::block** memory_account::link_to(const void* memory) const
{
    block* const* link = &buckets_[bucket_of(memory)];
    while (*link && (*link)->begin() != memory) link = &(*link)->next;
    return const_cast<block**>(link);
}

const memory_account::block* memory_account::block_around(const void* pointer) const
{
    const std::less<const void*> lies_before; // also compares pointers into different blocks
    for (const block* first : buckets_)
        for (const block* each = first; each; each = each->next)
            if (lies_before(each->begin(), pointer) && lies_before(pointer, each->begin() + each->size)) return each;
    return nullptr;
}

std::vector<const memory_account::block*> memory_account::blocks_by_age() const
{
    std::vector<const block*> list;
    for (const block* first : buckets_)
        for (const block* each = first; each; each = each->next) list.push_back(each);
    std::ranges::sort(list, {}, &block::nominal);
    return list;
}

} // namespace kernel
