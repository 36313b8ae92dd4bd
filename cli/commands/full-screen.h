// Draws on the alternate screen of the terminal, through standard output. The normal screen does not change.
#pragma once

#include <string>

namespace cli
{

// Only one object may exist at a time. The object handles SIGINT, SIGTERM and SIGHUP: the terminal first switches back
// to the normal screen, then the signal ends the program.
class full_screen
{
  public:
    struct size {
        size_t columns, lines;
    };

    full_screen();
    ~full_screen();
    full_screen(const full_screen&) = delete;
    full_screen& operator=(const full_screen&) = delete;

    // Returns the current size of the window, or 80 x 24 if the terminal does not report its size.
    size window() const;

    // Draws over the previous picture. If the picture has as many lines as the window, the last line must not have a
    // line end, because that would scroll the screen.
    void draw(const std::string& picture) const;
};

} // namespace cli
