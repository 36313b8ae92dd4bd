// Owns a file descriptor. The destructor closes it. The value -1 means that there is no descriptor.
#pragma once

#include <unistd.h>
#include <utility>

namespace client
{

class descriptor
{
  public:
    explicit descriptor(int fd = -1) : fd_(fd) {}
    ~descriptor() { reset(); }
    descriptor(descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    descriptor& operator=(descriptor&& other) noexcept
    {
        if (this == &other) return *this;
        reset();
        fd_ = std::exchange(other.fd_, -1);
        return *this;
    }

    bool is_open() const { return fd_ >= 0; }
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); } // the caller then owns it
    void reset()
    {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }

  private:
    int fd_;
};

} // namespace client
