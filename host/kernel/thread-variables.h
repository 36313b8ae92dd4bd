// The thread-local variables of placed images. The kernel itself loads these images of modules (placed-image.h). The
// dynamic linker does not know the images, so the kernel allocates the variables itself and replaces __tls_get_addr().
#pragma once

#include <cstddef>
#include <string>

namespace kernel
{

struct thread_variables_layout {
    std::string first_values; // initial bytes of the variables; all later bytes are zero
    size_t bytes = 0;         // size of all variables
};

// The thread-local variables of one image. A thread gets its own copy of all variables when the thread first uses one
// of them.
class thread_variables
{
  public:
    // `layout` must outlive this object.
    explicit thread_variables(const thread_variables_layout& layout) : layout_(layout) {}

    // Frees the variables of all threads. No thread may use them any more.
    ~thread_variables();
    thread_variables(const thread_variables&) = delete;
    thread_variables& operator=(const thread_variables&) = delete;

    // Returns the copy of the calling thread. Any thread.
    char* copy_of_this_thread();

  private:
    const thread_variables_layout& layout_;
};

// The argument that an image passes to __tls_get_addr (System V ABI of x86-64, "Thread-Local Storage").
struct thread_variable_index {
    thread_variables* image;
    unsigned long offset; // of the variable in the copy of a thread
};

// Placed images call this function instead of __tls_get_addr(). Returns the address of the calling thread's variable.
void* address_of_thread_variable(const thread_variable_index* index);

} // namespace kernel
