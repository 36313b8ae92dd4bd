#include "host/stack/datagram-pool.h"

#include <cassert>
#include <cstring>
#include <new>

#include "host/exec/sanitizers.h"
#include "host/exec/task.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#endif

namespace stack
{

namespace
{

constexpr size_t zeroed_offset = offsetof(gsi_dtgrm_t, rmpp_payload); // a new datagram is zero from here on

// With `is_allowed` false, the address sanitizer reports every later access to the datagram, except to its `priv` part.
// With `is_allowed` true, it reports none. Without the address sanitizer, this function does nothing.
void allow_use([[maybe_unused]] gsi_dtgrm_t& datagram, [[maybe_unused]] bool is_allowed)
{
#ifdef __SANITIZE_ADDRESS__
    constexpr size_t client_offset = offsetof(gsi_dtgrm_t, mad);
    char* begin = reinterpret_cast<char*>(&datagram) + client_offset;
    if (is_allowed)
        __asan_unpoison_memory_region(begin, sizeof datagram - client_offset);
    else
        __asan_poison_memory_region(begin, sizeof datagram - client_offset);
#endif
}

} // namespace

std::unique_ptr<datagram_pool> datagram_pool::make(const exec::executor& exec, std::string name, size_t size)
{
    slot_memory slots(static_cast<slot*>(std::aligned_alloc(alignof(slot), size * sizeof(slot))));
    if (!slots) return nullptr;
    return std::unique_ptr<datagram_pool>(new datagram_pool(exec, std::move(name), size, std::move(slots)));
}

datagram_pool::~datagram_pool()
{
    for (size_t i = 0; i < used_slots_; ++i) {
        gsi_dtgrm_t& datagram = slots_[i].datagram;
        const datagram_record& record = datagram_record::record_of(&datagram, "the end of a datagram pool");
        if (record.state() != datagram_state::free)
            exec::panic("datagram %p was not returned to pool '%s', which is destroyed with %zu of %zu free: %s",
                        static_cast<const void*>(&datagram), name_.c_str(), free_count_, size_,
                        record.history().c_str());
        allow_use(datagram, true);
    }
}

size_t datagram_pool::free() const
{
    const std::lock_guard lock(mutex_);
    return free_count_;
}

datagram_record* datagram_pool::take()
{
    datagram_record* record;
    {
        const std::lock_guard lock(mutex_);
        if (free_count_ == 0) return nullptr;
        --free_count_;
        record = free_list_;
        if (record) {
            assert(record->state() == datagram_state::free);
            free_list_ = record->next;
            record->set_state(datagram_state::held);
        } else {
            assert(used_slots_ < size_);
            record = &datagram_record::make(slots_[used_slots_].datagram, *this);
            ++used_slots_;
        }
    }
    gsi_dtgrm_t& datagram = record->datagram();
    allow_use(datagram, true);
    std::memset(reinterpret_cast<char*>(&datagram) + zeroed_offset, 0, sizeof datagram - zeroed_offset);
    return record;
}

void datagram_pool::put(datagram_record& record)
{
    assert(&record.pool == this);
    record.take_over(datagram_state::free, "gsi_dtgrm_pool_put");
    record.note(exec_.now(), datagram_event::put);
    allow_use(record.datagram(), false);
    const std::lock_guard lock(mutex_);
    assert(free_count_ < size_);
    record.next = free_list_;
    free_list_ = &record;
    ++free_count_;
}

} // namespace stack
