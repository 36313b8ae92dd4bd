// The files of viewer/, as the build has put them into the program.
#pragma once

namespace recording
{

extern const char page_template[];
extern const char page_style[];
extern const char page_script[];

} // namespace recording
