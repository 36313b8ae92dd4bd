// Protects the files of a command line from each other.
#pragma once

#include <string>
#include <vector>

#include "host/result.h"

namespace console
{

// A file that a command reads or writes.
struct used_file {
    std::string name; // the option or argument, for error texts
    std::string path; // "" if the command does not use the file
};

// Fails (invalid) if two of the files are one and the same, because the command would destroy its content. Files that
// exist are compared by device and inode, so links are found. Files that do not exist yet are compared by path. The
// same character device, such as /dev/null, may be used twice. Put the files that the command reads before those
// that it writes: the error asks for another path of the later file. Opens no file. Any thread.
ats::result<> check_distinct_files(const std::vector<used_file>& files);

} // namespace console
