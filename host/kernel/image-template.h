// The contents of a module file, read once. Any number of images can be made from them without the dynamic linker. All
// addresses are offsets from the beginning of an image.
//
//   image:  | headers, code, constants |   ...   | variables (.data, .got, .bss) |
//           0                      text.size()  data_begin                    data_end
//
// The code and the constants of an image never change, so all images share them. Only the variables are private.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "host/kernel/thread-variables.h"

namespace kernel
{

// The linker script in cmake/targets.cmake adds this many bytes between the code and the variables of a module.
constexpr uint64_t data_distance = 0x400000;
constexpr size_t image_page_bytes = 4096; // page size of x86-64, the only processor for which images are placed

struct image_template {
    struct pointer {    // a pointer variable whose target is also in the image
        uint64_t place; // of the variable
        uint64_t target;
    };
    struct symbol {
        uint64_t begin;
        uint64_t bytes;
        bool is_object; // a variable, not a function
    };
    struct function_list {
        uint64_t first = 0; // the function DT_INIT or DT_FINI; 0 means none
        uint64_t array = 0; // a table of pointers to more functions
        size_t array_size = 0;
    };

    std::string name;        // file name without its folder; the caller of read_image_template() sets it
    std::string text;        // headers, code and constants
    uint64_t data_begin = 0; // begin and end of the variables
    uint64_t data_end = 0;
    std::string data;                     // initial bytes of the variables; all later bytes are zero
    std::vector<pointer> pointers;        // each image sets them to its own addresses
    std::vector<uint64_t> thread_indexes; // places of the image's records of type thread_variable_index
    thread_variables_layout thread_variables;
    function_list initialisers;
    function_list finalisers;
    uint64_t unwind_table = 0; // .eh_frame_hdr; 0 means none
    std::unordered_map<std::string, symbol> exports;

    // Returns the exported function or variable that contains an offset, or null.
    const std::pair<const std::string, symbol>* export_at(uint64_t offset) const;
};

// Reads a module file from its descriptor, which the caller still owns. Returns null if no image can be made from it,
// for example because the file is not a shared object, was not linked with data_distance, or needs something that only
// the dynamic linker can do. The caller can then call dlopen(), which maps the file or reports the error. Any thread.
std::unique_ptr<image_template> read_image_template(int file);

} // namespace kernel
