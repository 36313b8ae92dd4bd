// Draws on the alternate screen of the terminal, through standard output. The normal screen does not change.
#pragma once

#include <string>

namespace cli
{

// Use one object at a time. If SIGINT, SIGTERM or SIGHUP ends the program, its handler first switches back to the
// normal screen.
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

    // The current size of the window; 80 x 24 if the terminal does not report it.
    size window() const;

    // Draws over the previous picture. The last line must not have a line end, because that would scroll the screen.
    void draw(const std::string& picture) const;
};

} // namespace cli
