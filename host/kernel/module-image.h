// A module image whose variables are private.
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

// Makes an image of a module file. Most images are placed (placed-image.h). If a file cannot be placed, the dynamic
// linker maps a copy of it. Each image needs its own copy, because the dynamic linker maps a file only once. For one
// thread at a time.
class module_image
{
  public:
    module_image();
    ~module_image();
    module_image(const module_image&) = delete;
    module_image& operator=(const module_image&) = delete;

    // Makes the image. Call it once. Errors: not_found if there is no such file; invalid if this kernel cannot use it
    // as a module; no_memory if a limit of the process is reached.
    ats::result<> map(const std::string& path);

    // The module's `this_module`, which is inside the image. Null before map() has succeeded.
    kernel_module_t* declaration() const { return declaration_; }

    // Returns the address of a symbol that the image itself exports, or null.
    void* symbol(const std::string& name) const;

  private:
    ats::result<> link(const std::string& path);
    ats::result<> copy(const std::string& path);
    ats::result<> check_declaration() const;
    bool contains(const void* address) const;

    std::unique_ptr<placed_image> placed_; // null if the dynamic linker has mapped the image (next two members)
    int copy_ = -1; // a memory file; stays open, because the linker treats equal paths as one object
    void* handle_ = nullptr;
    kernel_module_t* declaration_ = nullptr;
};

// The address range of a loaded module. With it the kernel and its services find everything that the module has left
// behind.
class module_code
{
  public:
    // `address` is any address in the image.
    module_code(std::string module_name, const void* address);

    const std::string& name() const { return name_; }

    // Returns true if the code belongs to the module.
    bool holds(const void* code) const;

    template <class result_t, class... arguments_t>
    bool holds(result_t (*function)(arguments_t...)) const
    {
        return holds(reinterpret_cast<const void*>(function));
    }

    // A place in the code, in the form for addr2line: "ats+0x1a2b".
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

// A place in the image that is mapped at `base`, for example "ats+0x1a2b".
std::string text_of_place(const std::string& image, const void* code, const void* base);

// Describes code for reports: by the exported function that contains it, or by its place in its image.
std::string describe_code(const void* code);

// A part of an image in memory. `usual_offset` is the offset that the part would have in the image if the variables
// followed directly behind the code. An image that the dynamic linker has mapped is one part.
struct image_part {
    const void* begin;
    size_t bytes;
    size_t usual_offset;
};

// The parts of the image that contains an address. The image may be a module, the program or a library. The first part
// is the beginning of the image. Empty if there is no such image. Any thread.
std::vector<image_part> parts_of_image(const void* address);

// The start address of that image, or null if there is none. Any thread.
const void* image_of(const void* address);

} // namespace kernel
