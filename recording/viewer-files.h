// The texts of the files in viewer/. The build makes the definitions from viewer-files.cpp.in.
#pragma once

namespace recording
{

extern const char page_template[];
extern const char page_style[];
extern const char page_script[];

} // namespace recording
