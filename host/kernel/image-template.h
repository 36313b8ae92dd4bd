// A module file, read once, from which any number of images can be made without the dynamic linker. All addresses in it
// are offsets from the beginning of an image.
//
//   image:  | headers, code, constants |   ...   | variables (.data, .got, .bss) |
//           0                      text_bytes   data_begin                    data_end
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

// The variables of a module are linked this much further behind its code than usual; see cmake/targets.cmake.
constexpr uint64_t data_distance = 0x400000;
constexpr size_t image_page_bytes = 4096; // of x86-64, the only processor for which images are placed

struct image_template {
    struct pointer { // a variable of the image that points into the image
        uint64_t place;
        uint64_t target;
    };
    struct symbol {
        uint64_t begin;
        uint64_t bytes;
        bool is_object;
    };
    struct function_list {
        uint64_t first = 0; // a function; 0: none
        uint64_t array = 0; // of pointers to more functions
        size_t array_size = 0;
    };

    std::string name;        // the file's, without its folder
    std::string text;        // headers, code and constants
    uint64_t data_begin = 0; // of the variables
    uint64_t data_end = 0;
    std::string data;                     // the first values of the variables; the rest are zero
    std::vector<pointer> pointers;        // to be set in each image
    std::vector<uint64_t> thread_indexes; // where an image keeps the indexes of its thread-local variables
    thread_variables_layout thread_variables;
    function_list initialisers;
    function_list finalisers;
    uint64_t unwind_table = 0; // .eh_frame_hdr; 0: none
    std::unordered_map<std::string, symbol> exports;

    // The exported function or variable that contains an offset, or null.
    const std::pair<const std::string, symbol>* export_at(uint64_t offset) const;
};

// Reads a module's file from its descriptor. Returns null if the file cannot be placed. Possible reasons: it is not
// linked for that, it needs something that only the dynamic linker does, or it is not an image. The dynamic linker can
// then map it, or report the error. Any thread.
std::unique_ptr<image_template> read_image_template(int file);

} // namespace kernel
