// A module image mapped privately.
#pragma once

#include <string>

struct kernel_module_t;

namespace kernel
{

// Each image comes from a copy of the file in memory of its own, because the dynamic linker maps a file only once.
class module_image
{
  public:
    module_image() = default;
    ~module_image();
    module_image(const module_image&) = delete;
    module_image& operator=(const module_image&) = delete;

    struct failure {
        int error = 0; // or a negative error number and one line that says why
        std::string why;
    };

    // Maps a copy of the file, and refuses one whose `this_module` is not a record that this kernel can use.
    failure map(const std::string& path);

    kernel_module_t* declaration() const { return declaration_; }
    void* symbol(const std::string& name) const; // of the image itself; null when it exports no such one

  private:
    std::string misfit() const;
    bool holds(const void* address) const;

    int copy_ = -1; // stays open: the linker takes equal paths for one object
    void* handle_ = nullptr;
    kernel_module_t* declaration_ = nullptr;
};

// The beginning of the mapped image, a module's or another, that an address belongs to; null: of none.
const void* image_of(const void* address);

} // namespace kernel
