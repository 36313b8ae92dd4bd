// Lines for the administrator: on a terminal as they are, in systemd's journal with their priority (sd-daemon(3)).
#pragma once

#include <string>

namespace console
{

// As syslog(3) has them.
enum class priority { error = 3, warning = 4, notice = 5, information = 6 };

// `text` with "<N>" before each of its lines if stderr is the journal, which takes it as the line's priority.
std::string with_priority(priority priority, const std::string& text);

} // namespace console
