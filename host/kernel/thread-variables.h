// The thread-local variables of images that the dynamic linker does not know.
#pragma once

#include <cstddef>
#include <string>

namespace kernel
{

struct thread_variables_layout {
    std::string first_values; // the rest are zero
    size_t bytes = 0;
};

// The variables of one image. Each thread gets its own when it uses them first.
class thread_variables
{
  public:
    // `layout` must outlive this.
    explicit thread_variables(const thread_variables_layout& layout) : layout_(layout) {}

    // Frees the variables of all threads. No thread may use them meanwhile.
    ~thread_variables();
    thread_variables(const thread_variables&) = delete;
    thread_variables& operator=(const thread_variables&) = delete;

    // Those of the calling thread.
    char* of_this_thread();

  private:
    const thread_variables_layout& layout_;
};

// What an image hands to __tls_get_addr to find a variable (System V ABI of x86-64, "Thread-Local Storage").
struct thread_variable_index {
    thread_variables* image;
    unsigned long offset;
};

// Takes the place of __tls_get_addr: the address of the variable in the calling thread.
void* address_of_thread_variable(const thread_variable_index* index);

} // namespace kernel
