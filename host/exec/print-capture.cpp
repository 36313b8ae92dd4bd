#include "host/exec/print-capture.h"

#include "host/exec/task.h"

namespace exec
{

print_capture::print_capture(where to) : to_(to), outer_(current_task_of("print_capture").capture)
{
    current_task()->capture = this;
}

print_capture::~print_capture()
{
    current_task()->capture = outer_;
}

bool print_capture::take(const char* printed)
{
    const bool marked = printed[0] == '<' && printed[1] != '\0' && printed[2] == '>';
    text_ += printed + (marked ? 3 : 0);
    return to_ == also_log && (!outer_ || outer_->take(printed));
}

} // namespace exec
