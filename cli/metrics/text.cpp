#include <fmt/format.h>

#include "cli/metrics/metrics.h"
#include "host/world/printable.h"

namespace metrics
{

namespace
{

constexpr const char* type_words[] = {"gauge", "counter", "histogram"};

// Makes a text valid as the value of a label: UTF-8 without control characters (see printable.h), with escaped
// backslashes and quotation marks.
std::string escaped(const std::string& text)
{
    std::string result;
    for (const char each : world::printable(text)) {
        if (each == '\\' || each == '"') result += '\\';
        result += each;
    }
    return result;
}

std::string text_of(const std::vector<label>& labels)
{
    if (labels.empty()) return "";
    std::string text;
    for (const auto& [name, value] : labels)
        text += fmt::format("{}{}=\"{}\"", text.empty() ? '{' : ',', name, escaped(value));
    return text + '}';
}

} // namespace

std::string text_of(const std::vector<family>& families)
{
    std::string text;
    for (const family& family : families) {
        if (family.samples.empty()) continue;
        text += fmt::format("# HELP {} {}\n# TYPE {} {}\n", family.name, family.help, family.name,
                            type_words[static_cast<size_t>(family.type)]);
        for (const sample& sample : family.samples)
            text += fmt::format("{}{}{} {}\n", family.name, sample.suffix, text_of(sample.labels), sample.value);
    }
    return text;
}

} // namespace metrics
