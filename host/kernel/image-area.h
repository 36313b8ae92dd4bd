// Places many images of one module in a large area of memory, so that few mappings serve many machines. An area has
// slots of equal size, and each slot holds one image.
//
//   area:   | code of slots 0 to 15 | code of slots 16 to 31 | ... | variables of slot 0 | of slot 1 | of slot 2 | ...
//           one mapping each, all of the same memory file          one mapping
//
// The memory file holds sixteen equal copies of the module's code. A slot's variables lie behind its code at the
// distance for which the module was linked. A page of variables takes memory only after the image has written to it.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <vector>

#include "host/kernel/image-template.h"
#include "host/result.h"

namespace kernel
{

// A module and the memory file with its code. Any number of areas map this file. The object exists until the process
// ends. Only one thread at a time may call prepare().
class shared_code
{
  public:
    explicit shared_code(std::unique_ptr<image_template> source);
    shared_code(const shared_code&) = delete;
    shared_code& operator=(const shared_code&) = delete;

    // Writes the memory file at the first call. Call it before an area takes a slot. Fails (no_memory) when a limit of
    // the process is reached.
    ats::result<> prepare();

    const image_template& source() const { return *source_; }
    size_t slots() const { return slots_; }         // in one area; 0 if the module is too large
    size_t stride() const { return stride_; }       // bytes from the code of one slot to the code of the next slot
    size_t data_page() const { return data_page_; } // bytes from the code of a slot to the first page of its variables
    size_t data_bytes() const { return data_bytes_; } // size of these pages
    int file() const { return file_; }

  private:
    const std::unique_ptr<image_template> source_;
    const size_t data_page_;
    const size_t data_bytes_;
    const size_t stride_;
    const size_t slots_;
    int file_ = -1;
};

// One area. It exists until the process ends, because find() may read it at any time. A slot that was freed can be
// taken again. Only one thread at a time may make a call, except for calls whose comment says "any thread".
class image_area
{
  public:
    // Makes an area without images. Fails (no_memory) when a limit of the process is reached, or when the table of all
    // areas is full.
    static ats::result<image_area*> make(const shared_code& code);

    const image_template& source() const { return code_.source(); }
    bool has_room() const { return used_slots_ < code_.slots(); }
    char* slot_begin(size_t slot) const { return begin_ + slot * code_.stride(); }

    // Takes a free slot and returns its number. The area must have room. The bytes of the slot's variables are zero.
    // Fails (no_memory) when the process may not make another mapping.
    ats::result<size_t> take();

    // Frees a slot. Sets the bytes of its variables to zero.
    void put(size_t slot);

    // Gives pages of a slot's variables back to the system if every byte in them is zero. No other thread may write to
    // the slot's variables meanwhile. Any thread.
    void give_back_zero_pages(size_t slot) const;

    // Returns the beginning of the image that contains `address`, an address in this area. Returns null if no image
    // contains it. Any thread.
    char* find(const char* address) const;

  private:
    image_area(const shared_code& code, char* begin);

    const shared_code& code_;
    char* const begin_;
    std::vector<std::atomic<bool>> in_use_; // for each slot, true if it is taken
    std::vector<bool> is_mapped_;           // for each group of sixteen slots, true if its code is mapped
    size_t used_slots_ = 0;
};

// Returns the area that contains an address, or null if there is none. Takes no lock. Any thread, any context.
const image_area* find_area(const void* address);

} // namespace kernel
