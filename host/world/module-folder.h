// Finds the modules of this build or installation.
#pragma once

#include <string>

namespace world
{

// Returns $ATS_MODULE_DIR if it is set and not empty. Otherwise returns the folder in which the modules are installed,
// if it exists. Otherwise returns ../modules, the folder of a build tree. Both folders are relative to the folder of
// the program. The result is never empty. The returned folder may not exist. Any thread.
std::string default_module_folder();

} // namespace world
