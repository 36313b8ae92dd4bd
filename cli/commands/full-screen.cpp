#include "cli/commands/full-screen.h"

#include <csignal>
#include <iostream>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

namespace cli
{

namespace
{

constexpr std::string_view enter_screen = "\033[?1049h\033[?25l"; // selects the alternate screen, hides the cursor
constexpr std::string_view leave_screen = "\033[?25h\033[?1049l";
constexpr int ending_signals[] = {SIGINT, SIGTERM, SIGHUP};

// A signal handler: it may only use async-signal-safe calls.
void leave_and_end(int signal_number)
{
    [[maybe_unused]] const ssize_t written_bytes = write(STDOUT_FILENO, leave_screen.data(), leave_screen.size());
    signal(signal_number, SIG_DFL);
    raise(signal_number);
}

} // namespace

full_screen::full_screen()
{
    for (const int number : ending_signals) signal(number, leave_and_end);
    std::cout << enter_screen << std::flush;
}

full_screen::~full_screen()
{
    std::cout << leave_screen << std::flush;
    for (const int number : ending_signals) signal(number, SIG_DFL);
}

full_screen::size full_screen::window() const
{
    winsize window{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) != 0 || window.ws_col == 0 || window.ws_row == 0) return {80, 24};
    return {window.ws_col, window.ws_row};
}

void full_screen::draw(const std::string& picture) const
{
    constexpr std::string_view home = "\033[H";
    // This goes before the text of each line. After the text of a line that fills the window, it would erase the last
    // column.
    constexpr std::string_view clear_line = "\033[K";
    size_t free_lines = window().lines - 1;
    std::string text;
    text += home;
    text += clear_line;
    for (const char character : picture) {
        text += character;
        if (character != '\n') continue;
        text += clear_line;
        if (free_lines > 0) --free_lines;
    }
    for (; free_lines > 0; --free_lines) {
        text += '\n';
        text += clear_line;
    }
    std::cout << text << std::flush;
}

} // namespace cli
