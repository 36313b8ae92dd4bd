// What a task prints, for who asked it to.
#pragma once

#include <string>

namespace exec
{

// While it lives, what the calling task prints is kept here too, or here instead of in the machine's log. Captures of
// one task nest. Only its task may touch it.
class print_capture
{
  public:
    enum where { also_log, instead_of_log };

    explicit print_capture(where to);
    ~print_capture();
    print_capture(const print_capture&) = delete;
    print_capture& operator=(const print_capture&) = delete;

    // All texts so far, priorities ("<6>") taken off.
    const std::string& text() const { return text_; }

    // Called by printk. True: the log is to have the text too.
    bool take(const char* printed);

  private:
    const where to_;
    print_capture* const outer_;
    std::string text_;
};

} // namespace exec
