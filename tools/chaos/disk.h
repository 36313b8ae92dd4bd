// A small file system that can become full. It is a mount that only this program and its children see. It vanishes when
// they end.
#pragma once

#include <string>

#include "host/result.h"

namespace chaos
{

// Moves this process into a new mount namespace, in which it can mount disks. This needs no privileges if the system
// allows user namespaces. Call allow_disks() once, before any thread starts. The error says why disks are not possible.
ats::result<> allow_disks();

// The folder of a host: a small file system, or an ordinary folder if `is_small` is false.
class disk
{
  public:
    // Makes the folder, and mounts a file system of 2 MiB there if `is_small`. Throws std::system_error on failure.
    disk(std::string folder, bool is_small);
    ~disk();
    disk(const disk&) = delete;
    disk& operator=(const disk&) = delete;

    // fill() uses all space of the file system. empty() frees this space. Both do nothing if the disk is not small.
    void fill();
    void empty();

    const std::string& folder() const { return folder_; }
    bool is_small() const { return is_small_; }
    bool was_full() const { return was_full_; } // fill() has used all space at least once

  private:
    const std::string folder_;
    const bool is_small_;
    bool was_full_ = false;
};

} // namespace chaos
