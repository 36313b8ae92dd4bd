// Module images at equal strides in large areas of memory, so that few mappings serve many machines.
//
//   area:   | code of slots 0 to 15 | code of slots 16 to 31 | ... | variables of slot 0 | of slot 1 | of slot 2 | ...
//           one mapping each, all of the same memory file          one mapping
//
// All code of a module is in one memory file that holds sixteen equal copies of it. A slot's variables lie behind its
// code at the distance for which the module was linked. Only the variables that an image has written take memory.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <vector>

#include "host/kernel/image-template.h"
#include "host/result.h"

namespace kernel
{

// A module and its code. Any number of areas map this code. It exists until the process ends.
class shared_code
{
  public:
    explicit shared_code(std::unique_ptr<image_template> source);
    shared_code(const shared_code&) = delete;
    shared_code& operator=(const shared_code&) = delete;

    // Writes the memory file, unless it has been written. Fails (no_memory) when a limit of the process is used up.
    ats::result<> prepare();

    const image_template& source() const { return *source_; }
    size_t slots() const { return slots_; } // in one area; 0 if the module is too large
    size_t stride() const { return stride_; }
    size_t data_page() const { return data_page_; } // the distance from a slot's code to its variables
    size_t data_bytes() const { return data_bytes_; }
    int file() const { return file_; }

  private:
    const std::unique_ptr<image_template> source_;
    const size_t data_page_;
    const size_t data_bytes_;
    const size_t stride_;
    const size_t slots_;
    int file_ = -1;
};

// One area. It exists until the process ends, because find() may read it at any time. Its slots are used again. Calls
// are for one thread at a time, unless a comment says otherwise.
class image_area
{
  public:
    // Makes an area without images. Fails (no_memory) when a limit of the process is used up.
    static ats::result<image_area*> make(const shared_code& code);

    const image_template& source() const { return code_.source(); }
    bool has_room() const { return used_slots_ < code_.slots(); }
    char* slot_begin(size_t slot) const { return begin_ + slot * code_.stride(); }

    // Takes a free slot. Its variables are zero. Fails (no_memory) when no more mappings are allowed.
    ats::result<size_t> take();
    void put(size_t slot);

    // Gives back the pages of a slot's variables that are zero. No other thread may write them meanwhile. Any thread.
    void give_back_zero_pages(size_t slot) const;

    // The beginning of the image that an address of the area belongs to, or null. Any thread.
    char* find(const char* address) const;

  private:
    image_area(const shared_code& code, char* begin);

    const shared_code& code_;
    char* const begin_;
    std::vector<std::atomic<bool>> in_use_;
    std::vector<bool> is_mapped_; // for each group of sixteen slots, true if its code is mapped
    size_t used_slots_ = 0;
};

// The area that an address belongs to, or null. Any thread, any context; takes no lock.
const image_area* find_area(const void* address);

} // namespace kernel
