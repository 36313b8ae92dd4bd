// Opens the files to which a run writes its capture or its recording.
#pragma once

#include <cstdio>
#include <string>

#include "host/result.h"

namespace fabric
{

// Opens a file for writing. Creates a missing file, and empties an existing one. The caller closes the file with
// fclose(). Never waits. Fails (invalid) if `path` is neither a regular file nor a character device: with a FIFO, the
// tasks of the fabric would wait for its reader at each write. The error is the reason only. Any thread.
ats::result<std::FILE*> open_output_file(const std::string& path);

} // namespace fabric
