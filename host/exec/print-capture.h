// Captures the texts that a task prints.
#pragma once

#include <string>

namespace exec
{

// While it lives, it keeps the texts that the calling task prints; they go to the machine's log too, or not. Captures
// of one task nest. For its task only.
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

    // Called by printk. True if the text goes to the log too.
    bool take(const char* text);

  private:
    const destination destination_;
    print_capture* const outer_;
    std::string text_;
};

} // namespace exec
