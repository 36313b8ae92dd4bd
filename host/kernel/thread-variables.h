// The thread-local variables of placed images. The dynamic linker does not know these images.
#pragma once

#include <cstddef>
#include <string>

namespace kernel
{

struct thread_variables_layout {
    std::string first_values; // the rest are zero
    size_t bytes = 0;
};

// The thread-local variables of one image. A thread gets its copy when it first uses one of them.
class thread_variables
{
  public:
    // `layout` must outlive this object.
    explicit thread_variables(const thread_variables_layout& layout) : layout_(layout) {}

    // Frees the variables of all threads. Meanwhile no thread may use them.
    ~thread_variables();
    thread_variables(const thread_variables&) = delete;
    thread_variables& operator=(const thread_variables&) = delete;

    // The variables of the calling thread.
    char* of_this_thread();

  private:
    const thread_variables_layout& layout_;
};

// The argument that an image passes to __tls_get_addr (System V ABI of x86-64, "Thread-Local Storage").
struct thread_variable_index {
    thread_variables* image;
    unsigned long offset;
};

// Replaces __tls_get_addr. Returns the address of the variable in the calling thread.
void* address_of_thread_variable(const thread_variable_index* index);

} // namespace kernel
