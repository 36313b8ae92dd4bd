// A small file system that can become full. Only this program and its children see it, and it vanishes when they end.
#pragma once

#include <string>

#include "host/result.h"

namespace chaos
{

// Takes this process into a mount namespace of its own, which needs no privileges if the system allows user namespaces.
// Call it once, before any thread starts. The error says why there can be no disks.
ats::result<> allow_disks();

class disk
{
  public:
    // Makes the folder, and mounts a file system there if `is_small`. Throws std::system_error.
    disk(std::string folder, bool is_small);
    ~disk();
    disk(const disk&) = delete;
    disk& operator=(const disk&) = delete;

    // Takes all space, or returns it. Does nothing if the disk is an ordinary folder.
    void fill();
    void empty();

    const std::string& folder() const { return folder_; }
    bool was_full() const { return was_full_; } // ever

  private:
    const std::string folder_;
    const bool is_small_;
    bool was_full_ = false;
};

} // namespace chaos
