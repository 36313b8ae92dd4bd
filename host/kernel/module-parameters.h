// The parameters of insmod's command line.
#pragma once

#include <list>
#include <string>

struct kernel_module_t;

namespace kernel
{

// Sets what "name=value name=\"two words\"" says in the image. Texts are kept in `texts`, which must live as long as
// the image. "" or one line that says what is wrong; the image is then of no use.
std::string set_parameters(const kernel_module_t& module, const std::string& parameters, std::list<std::string>* texts);

} // namespace kernel
