// Finds the modules of this build or installation.
#pragma once

#include <string>

namespace world
{

// $ATS_MODULE_DIR, or else the folder of the modules seen from that of the program: the installed one if it exists,
// else
// ../modules, as in a build tree. Never empty; whether it exists is not checked. Any thread may call it.
std::string default_module_folder();

} // namespace world
