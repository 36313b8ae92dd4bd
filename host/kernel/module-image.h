// A module image mapped privately.
#pragma once

#include <cstddef>
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

// The code of a loaded module, by which the kernel and its services know what the module holds.
class module_code
{
  public:
    // `inside` is any address in the image.
    module_code(std::string module_name, const void* inside);

    const std::string& name() const { return name_; }
    bool holds(const void* code) const;

    template <class result_t, class... arguments_t>
    bool holds(result_t (*function)(arguments_t...)) const
    {
        return holds(reinterpret_cast<const void*>(function));
    }

    // "ats+0x1a2b", as addr2line takes it.
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

// An offset into an image, as place() shows it.
std::string text_of_place(const std::string& image, const void* code, const void* base);

// The mapped image that contains an address; zero bytes if no image does.
struct image_range {
    const void* begin = nullptr;
    size_t bytes = 0;
};
image_range range_of_image(const void* address);

// The beginning of the mapped image, a module's or another, that an address belongs to; null: of none.
const void* image_of(const void* address);

} // namespace kernel
