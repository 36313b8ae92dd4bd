#include "recording/page.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "recording/viewer-files.h"

namespace recording
{

namespace
{

void replace(std::string& text, const std::string& mark, const std::string& value)
{
    const size_t position = text.find(mark);
    if (position != std::string::npos) text.replace(position, mark.size(), value);
}

// Replaces each "<" by its JSON escape. Without the escape, a browser ends the script element at the first "</script".
std::string inside_script(const std::string& lines)
{
    std::string text;
    text.reserve(lines.size());
    for (const char c : lines)
        if (c == '<')
            text += "\\u003c";
        else
            text += c;
    return text;
}

} // namespace

ats::result<> check_page(const std::string& path)
{
    std::FILE* const file = std::fopen(path.c_str(), "a"); // keeps the content of an earlier page
    if (!file) return ats::fail("cannot write " + path + ": " + std::strerror(errno));
    std::fclose(file);
    return {};
}

ats::result<> write_page(const std::string& path, const nlohmann::ordered_json& about, const std::string& lines)
{
    std::string page = page_template;
    replace(page, "/*style*/", page_style);
    replace(page, "/*script*/", page_script);
    replace(page, "{{about}}", inside_script(about.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)));
    replace(page, "{{recording}}", inside_script(lines));
    std::FILE* const file = std::fopen(path.c_str(), "w");
    const bool is_written = file && std::fwrite(page.data(), 1, page.size(), file) == page.size();
    const bool is_closed = file && std::fclose(file) == 0;
    if (is_written && is_closed) return {};
    return ats::fail("cannot write " + path + ": " + std::strerror(errno));
}

void add_window(nlohmann::ordered_json& about, const std::optional<window>& shown_window)
{
    if (shown_window) about["window"] = {{"from", shown_window->from_tick}, {"to", shown_window->to_tick}};
}

std::string text_of_file(std::FILE* file)
{
    std::string text;
    char buffer[65536];
    std::rewind(file);
    while (const size_t size = std::fread(buffer, 1, sizeof buffer, file)) text.append(buffer, size);
    return text;
}

} // namespace recording
