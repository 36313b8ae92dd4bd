#include "host/kernel/image-area.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "host/exec/shortage.h"
#include "host/kernel/zeroing.h"

namespace kernel
{

namespace
{

constexpr size_t area_bytes = 2 * data_distance; // the size of an area; its address is a multiple of this
constexpr size_t slots_of_a_mapping = 16;        // number of slots whose code is in one mapping

size_t page_of(size_t offset)
{
    return offset / image_page_bytes * image_page_bytes;
}

size_t round_to_pages(size_t bytes)
{
    return page_of(bytes + image_page_bytes - 1);
}

ats::error no_room(const char* call)
{
    return exec::shortage_error(std::string("no room for a module (") + call + ": " + std::strerror(errno) + ")");
}

// Makes a memory file with sixteen copies of the code `text`, one in every `stride` bytes. Returns its descriptor. On
// failure, returns -1 and sets errno.
int file_of_copies(const std::string& text, size_t stride)
{
    const int file = memfd_create("modules", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (file < 0) return -1;
    bool is_written = ftruncate(file, static_cast<off_t>(slots_of_a_mapping * stride)) == 0;
    for (size_t i = 0; i < slots_of_a_mapping && is_written; ++i)
        is_written =
            pwrite(file, text.data(), text.size(), static_cast<off_t>(i * stride)) == static_cast<ssize_t>(text.size());
    if (is_written && fcntl(file, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE) == 0) return file;
    const int error = errno;
    close(file);
    errno = error;
    return -1;
}

// Reserves the addresses of an area, at a multiple of area_bytes. On failure, returns null and sets errno.
char* reserve_area()
{
    void* mapping = mmap(nullptr, 2 * area_bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapping == MAP_FAILED) return nullptr;
    auto* begin = static_cast<char*>(mapping);
    const size_t excess = (area_bytes - reinterpret_cast<uintptr_t>(begin) % area_bytes) % area_bytes;
    if (excess > 0) munmap(begin, excess);
    munmap(begin + excess + area_bytes, area_bytes - excess);
    return begin + excess;
}

// A hash table of all areas by their begin address. Areas are never removed. Readers take no lock, because the unwinder
// reads the table while it handles an exception (unwinding.cpp).
class area_table
{
  public:
    // Adds an area. Returns false if the table is full. Only one thread at a time may call it.
    bool add(const char* begin, image_area& area)
    {
        for (size_t i = 0; i < entries_.size(); ++i) {
            entry& place = entries_[(first_place(begin) + i) % entries_.size()];
            if (place.area.load(std::memory_order_relaxed)) continue;
            place.begin = begin;
            place.area.store(&area, std::memory_order_release);
            return true;
        }
        return false;
    }

    const image_area* find(const char* begin) const
    {
        for (size_t i = 0; i < entries_.size(); ++i) {
            const entry& place = entries_[(first_place(begin) + i) % entries_.size()];
            const image_area* area = place.area.load(std::memory_order_acquire);
            if (!area || place.begin == begin) return area;
        }
        return nullptr;
    }

  private:
    struct entry {
        const char* begin;
        std::atomic<image_area*> area;
    };
    static size_t first_place(const char* begin) { return reinterpret_cast<uintptr_t>(begin) / area_bytes; }

    // Enough for 170,000 machines with three modules each, if an area has 32 slots.
    std::array<entry, 16384> entries_{};
};

constinit area_table areas;

} // namespace

shared_code::shared_code(std::unique_ptr<image_template> source)
    : source_(std::move(source)), data_page_(page_of(source_->data_begin)),
      data_bytes_(round_to_pages(source_->data_end) - data_page_),
      stride_(std::max(round_to_pages(source_->text.size()), data_bytes_)),
      slots_((area_bytes - data_page_) / stride_ / slots_of_a_mapping * slots_of_a_mapping)
{
}

ats::result<> shared_code::prepare()
{
    if (file_ < 0) file_ = file_of_copies(source_->text, stride_);
    if (file_ < 0) return tl::make_unexpected(no_room("memfd_create"));
    return {};
}

image_area::image_area(const shared_code& code, char* begin)
    : code_(code), begin_(begin), in_use_(code.slots()), is_mapped_(code.slots() / slots_of_a_mapping)
{
}

ats::result<image_area*> image_area::make(const shared_code& code)
{
    char* begin = reserve_area();
    if (!begin) return tl::make_unexpected(no_room("mmap"));
    char* data = begin + code.data_page();
    const size_t bytes = code.slots() * code.stride();
    std::unique_ptr<image_area> area(new image_area(code, begin));
    const bool is_writable = mprotect(data, bytes, PROT_READ | PROT_WRITE) == 0;
    if (!is_writable || !areas.add(begin, *area)) {
        const ats::error error =
            is_writable ? exec::shortage_error("no room for a module: all areas are in use") : no_room("mprotect");
        munmap(begin, area_bytes);
        return tl::make_unexpected(error);
    }
    madvise(data, bytes, MADV_NOHUGEPAGE); // a huge page takes memory for dozens of images at once
    return area.release();
}

ats::result<size_t> image_area::take()
{
    size_t slot = 0;
    while (in_use_[slot].load(std::memory_order_relaxed)) ++slot;
    const size_t mapping = slot / slots_of_a_mapping, bytes = slots_of_a_mapping * code_.stride();
    if (!is_mapped_[mapping]) {
        if (mmap(begin_ + mapping * bytes, bytes, PROT_READ | PROT_EXEC, MAP_SHARED | MAP_FIXED, code_.file(), 0) ==
            MAP_FAILED)
            return tl::make_unexpected(no_room("mmap"));
        is_mapped_[mapping] = true;
    }
    in_use_[slot].store(true, std::memory_order_release);
    ++used_slots_;
    return slot;
}

void image_area::put(size_t slot)
{
    char* data = slot_begin(slot) + code_.data_page();
    // MADV_DONTNEED sets the bytes to zero. It fails if the memory is locked. In this case, memset() sets them to zero.
    if (madvise(data, code_.data_bytes(), MADV_DONTNEED) != 0) std::memset(data, 0, code_.data_bytes());
    in_use_[slot].store(false, std::memory_order_release);
    --used_slots_;
}

void image_area::give_back_zero_pages(size_t slot) const
{
    kernel::give_back_zero_pages(slot_begin(slot) + code_.data_page(), code_.data_bytes());
}

char* image_area::find(const char* address) const
{
    const auto offset = static_cast<size_t>(address - begin_);
    const bool is_data = offset >= code_.data_page();
    const size_t place = is_data ? offset - code_.data_page() : offset;
    const size_t slot = place / code_.stride(), rest = place % code_.stride();
    if (slot >= code_.slots() || !in_use_[slot].load(std::memory_order_acquire)) return nullptr;
    return rest < (is_data ? code_.data_bytes() : source().text.size()) ? slot_begin(slot) : nullptr;
}

const image_area* find_area(const void* address)
{
    const auto number = reinterpret_cast<uintptr_t>(address);
    return areas.find(reinterpret_cast<const char*>(number - number % area_bytes));
}

} // namespace kernel
