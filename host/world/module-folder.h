// Finds the modules of this build or installation.
#pragma once

#include <string>

namespace world
{

// $ATS_MODULE_DIR, or else a folder found from the program's own place: ../modules in a build tree, or that of the
// installation. Where neither is, the former, so that an error about it names a folder.
std::string default_module_folder();

} // namespace world
