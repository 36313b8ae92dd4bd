// The image of a module in memory. Each machine has its own images, because the variables of a module belong to one
// machine. Most images share their code (placed-image.h).
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "host/result.h"

struct kernel_module_t;

namespace kernel
{

class placed_image;

// One image. It is a placed_image if the module file can be placed. If not, the dynamic linker maps a copy of the file.
// Each such image needs a copy of its own, because the dynamic linker maps a file only once. Only one thread at a time
// may use the object.
class module_image
{
  public:
    module_image();
    ~module_image();
    module_image(const module_image&) = delete;
    module_image& operator=(const module_image&) = delete;

    // Makes the image from the module file at `path`. Call map() once. Fails with not_found if there is no regular file
    // at `path` or it cannot be read, with invalid if the file is not a module for this kernel, and with no_memory if
    // there is no memory or a limit of the process is reached.
    ats::result<> map(const std::string& path);

    // The module's `this_module`, which is inside the image. Valid only after map() has succeeded.
    kernel_module_t* declaration() const { return declaration_; }

    // Returns the address of a symbol that the image exports, or null. Ignores the symbols of other libraries.
    void* symbol(const std::string& name) const;

  private:
    ats::result<> link(const std::string& path);
    ats::result<> copy(const std::string& path);
    ats::result<> check_declaration() const;
    bool contains(const void* address) const;

    std::unique_ptr<placed_image> placed_; // null if the dynamic linker has mapped the image

    // Only for an image of the dynamic linker: the descriptor of a memory file with the copy, and dlopen()'s handle.
    // The descriptor stays open, so that no other image gets the path "/proc/self/fd/N". The dynamic linker takes files
    // with equal paths for one object.
    int copy_ = -1;
    void* handle_ = nullptr;
    kernel_module_t* declaration_ = nullptr;
};

// Recognises the code of one loaded module. Before a module is unmapped, the kernel and its services use this class to
// find callbacks and memory that the module has left behind.
class module_code
{
  public:
    // `address` is any address in the image.
    module_code(std::string module_name, const void* address);

    const std::string& name() const { return name_; }

    // Returns true if the address `code` is in the module's image.
    bool holds(const void* code) const;

    template <class result_t, class... arguments_t>
    bool holds(result_t (*function)(arguments_t...)) const
    {
        return holds(reinterpret_cast<const void*>(function));
    }

    // Returns the place of an address in the image, in the form for addr2line: "ats+0x1a2b".
    std::string place(const void* code) const;

    template <class result_t, class... arguments_t>
    std::string place(result_t (*function)(arguments_t...)) const
    {
        return place(reinterpret_cast<const void*>(function));
    }

  private:
    const std::string name_;
    const void* const base_;
};

// Returns the place of the address `code` in the image with the name `image`, which is mapped at `base`. Example:
// "ats+0x1a2b".
std::string text_of_place(const std::string& image, const void* code, const void* base);

// Returns a text for reports: the name of the exported function that contains `code`, the place of `code` in its image,
// or "unknown code" if no image contains it.
std::string describe_code(const void* code);

// A part of an image in memory. An image that the dynamic linker has mapped is one part. A placed image has two: its
// code, and its variables. `usual_offset` is the offset of the part in an image that was linked without data_distance
// (image-template.h).
struct image_part {
    const void* begin;
    size_t bytes;
    size_t usual_offset;
};

// Returns the parts of the image that contains an address, beginning with its code. The image may be a module, the
// program or a library. Empty if no image contains the address. Any thread.
std::vector<image_part> parts_of_image(const void* address);

// Returns the start address of the image that contains an address, or null if no image contains it. Any thread.
const void* image_of(const void* address);

} // namespace kernel
