// Sets the parameters of a module from the command line of insmod.
#pragma once

#include <list>
#include <string>

#include "host/result.h"

struct kernel_module_t;

namespace kernel
{

// Sets variables of the module's image from assignments such as "name=value name=\"two words\"". Stores values that are
// texts in `texts`, which must outlive the image. If an assignment is wrong, fails (invalid) with one line that also
// lists the valid parameters. Variables of earlier assignments may already be set then.
ats::result<> set_parameters(const kernel_module_t& module, const std::string& parameters,
                             std::list<std::string>* texts);

} // namespace kernel
