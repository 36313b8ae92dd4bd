// The files of viewer/. The build puts them into the program.
#pragma once

namespace recording
{

extern const char page_template[];
extern const char page_style[];
extern const char page_script[];

} // namespace recording
