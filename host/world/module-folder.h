// Finds the modules of this build or installation.
#pragma once

#include <string>

namespace world
{

// Returns $ATS_MODULE_DIR if it is set. Otherwise returns a folder relative to that of the program: the folder of the
// installation if it exists, else ../modules, as in a build tree. The result is never empty; the folder may not exist.
// Any thread.
std::string default_module_folder();

} // namespace world
