// The alternate screen of the terminal on standard output, which leaves what stood there before as it was.
#pragma once

#include <string>

namespace cli
{

// At most one at a time. A signal that ends the program (SIGINT, SIGTERM, SIGHUP) goes back to the usual screen first.
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

    // The window's size now; 80 x 24 if the terminal does not tell.
    size window() const;

    // Draws over the last picture, without a line end after the last line, which would scroll.
    void draw(const std::string& picture) const;
};

} // namespace cli
