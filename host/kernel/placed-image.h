// An image of a module in an area that many machines share (image-area.h).
#pragma once

#include <memory>
#include <string>

#include "host/kernel/image-template.h"
#include "host/result.h"

namespace kernel
{

class image_area;

// One image in a slot of an area.
class placed_image
{
  public:
    // Places an image of the module file at `path` and runs its initialisers. If the file can be placed, reads it only
    // at the first call and after a change of the file. Fails (no_memory) when there is no memory or a limit of the
    // process is reached. Any thread.
    //
    // Returns null if the file cannot be opened or cannot be placed (see read_image_template). Also returns null if the
    // environment variable ATS_DLOPEN_MODULES is set. The caller then lets the dynamic linker map an image. Debuggers
    // and profilers see the symbols of such an image, but not those of a placed image.
    static ats::result<std::unique_ptr<placed_image>> place(const std::string& path);

    // Runs the finalisers of the image and frees its slot.
    ~placed_image();
    placed_image(const placed_image&) = delete;
    placed_image& operator=(const placed_image&) = delete;

    // Returns the address of the exported function or variable with this name, or null.
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

// Finds the placed image that contains an address. Takes no lock. Any thread, any context.
struct placed_range {
    const image_template* source = nullptr; // null if no placed image contains the address
    char* begin = nullptr;
};
placed_range find_placed_image(const void* address);

} // namespace kernel
