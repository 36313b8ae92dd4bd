// An image of a module in an area that many machines share (image-area.h).
#pragma once

#include <memory>
#include <string>

#include "host/kernel/image-template.h"
#include "host/result.h"

namespace kernel
{

class image_area;

// One image. Its destructor frees the slot.
class placed_image
{
  public:
    // Places an image of the module file at `path` and runs its initialisers. Returns null if the file cannot be placed
    // (see read_image_template). Also returns null if the environment variable ATS_DLOPEN_MODULES is set. Then the
    // dynamic linker maps the image, so that debuggers and profilers see all of it. Fails (no_memory) when a limit of
    // the process is used up. A file is read again only when it has changed. Any thread.
    static ats::result<std::unique_ptr<placed_image>> place(const std::string& path);

    // Runs the exit functions of the image.
    ~placed_image();
    placed_image(const placed_image&) = delete;
    placed_image& operator=(const placed_image&) = delete;

    // The exported function or variable of that name, or null.
    void* symbol(const std::string& name) const;

  private:
    placed_image(image_area& area, size_t slot);
    void initialise();

    image_area& area_;
    const size_t slot_;
    const image_template& source_;
    char* const begin_;
    thread_variables thread_variables_;
};

// The placed image that an address belongs to. Any thread, any context; takes no lock.
struct placed_range {
    const image_template* source = nullptr; // null if the address does not belong to a placed image
    char* begin = nullptr;
};
placed_range find_placed_image(const void* address);

} // namespace kernel
