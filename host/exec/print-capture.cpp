#include "host/exec/print-capture.h"

#include "host/exec/task.h"

namespace exec
{

print_capture::print_capture(destination destination)
    : destination_(destination), outer_(current_task_of("print_capture").capture)
{
    current_task()->capture = this;
}

print_capture::~print_capture()
{
    current_task()->capture = outer_;
}

bool print_capture::take(const char* text)
{
    const bool has_mark = text[0] == '<' && text[1] != '\0' && text[2] == '>';
    text_ += text + (has_mark ? 3 : 0);
    return destination_ == also_log && (!outer_ || outer_->take(text));
}

} // namespace exec
