// Captures the texts that a task prints.
#pragma once

#include <string>

namespace exec
{

// A capture keeps the texts that the calling task prints while the capture exists. `destination` decides if the texts
// also go to the machine's log. A task may nest captures. With `also_log`, an inner capture passes its texts to the
// outer one, and the outer one decides about the log. Only the task that made a capture may use it.
class print_capture
{
  public:
    enum destination { also_log, instead_of_log };

    explicit print_capture(destination destination);
    ~print_capture();
    print_capture(const print_capture&) = delete;
    print_capture& operator=(const print_capture&) = delete;

    // All texts so far, without their priorities ("<6>").
    const std::string& text() const { return text_; }

    // Called by printk. Adds the text to this capture. Returns true if the text also goes to the log.
    bool take(const char* text);

  private:
    const destination destination_;
    print_capture* const outer_;
    std::string text_;
};

} // namespace exec
