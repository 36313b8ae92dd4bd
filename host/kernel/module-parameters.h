// The parameters of insmod's command line.
#pragma once

#include <list>
#include <string>

#include "host/result.h"

struct kernel_module_t;

namespace kernel
{

// Sets variables of the image from the assignments in "name=value name=\"two words\"". Stores texts in `texts`, which
// must live as long as the image. Fails (invalid) with one line that lists the valid parameters. Some parameters may
// already be set then.
ats::result<> set_parameters(const kernel_module_t& module, const std::string& parameters,
                             std::list<std::string>* texts);

} // namespace kernel
