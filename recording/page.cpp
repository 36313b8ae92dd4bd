#include "recording/page.h"

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

#include "recording/viewer-files.h"

namespace recording
{

namespace
{

// The marks of page_template, in their order there, and the values that replace them.
using mark_values = std::vector<std::pair<std::string_view, std::string>>;

// Returns page_template with the values. Never searches a value for marks, because names of files may look like one.
std::string filled_template(const mark_values& values)
{
    std::string page;
    std::string_view rest = page_template;
    for (const auto& [mark, value] : values) {
        const size_t position = rest.find(mark);
        assert(position != rest.npos);
        page.append(rest.substr(0, position)).append(value);
        rest.remove_prefix(position + mark.size());
    }
    return page.append(rest);
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
    const std::string about_text = about.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    const std::string page = filled_template({{"/*style*/", page_style},
                                              {"{{about}}", inside_script(about_text)},
                                              {"{{recording}}", inside_script(lines)},
                                              {"/*script*/", page_script}});
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
