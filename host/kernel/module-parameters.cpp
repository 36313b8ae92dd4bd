#include "host/kernel/module-parameters.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <set>
#include <vector>

#include "kernel/module.h"

namespace kernel
{

namespace
{

struct assignment {
    std::string name;
    std::string value;
};

constexpr const char* blanks = " \t\n";

// Cuts the line into assignments; a value in double quotes may hold blanks.
std::string split(const std::string& line, std::vector<assignment>* into)
{
    for (size_t at = line.find_first_not_of(blanks); at != std::string::npos; at = line.find_first_not_of(blanks, at)) {
        const size_t equals = line.find_first_of("= \t\n", at);
        const std::string name = line.substr(at, equals - at);
        if (equals == std::string::npos || line[equals] != '=')
            return "'" + name + "' is no parameter: write name=value";
        size_t begin = equals + 1;
        const bool quoted = begin < line.size() && line[begin] == '"';
        if (quoted) ++begin;
        const size_t end = quoted ? line.find('"', begin) : std::min(line.find_first_of(blanks, begin), line.size());
        if (end == std::string::npos) return "the value of '" + name + "' lacks its closing quotation mark";
        into->push_back({name, line.substr(begin, end - begin)});
        at = end + (quoted ? 1 : 0);
        if (at < line.size() && !std::strchr(blanks, line[at]))
            return "a blank is missing after the value of '" + name + "'";
    }
    return "";
}

std::string valid_names(const kernel_module_t& module)
{
    std::string names;
    for (int32_t i = 0; i < module.parameter_count; ++i) {
        const module_parameter_t& each = module.parameters[i];
        names += (i > 0 ? ", " : "") + std::string(each.name) +
                 (each.type == module_parameter_int ? " (whole number)" : " (text)");
    }
    return names.empty() ? "it takes none" : "valid are " + names;
}

std::string set(const module_parameter_t& parameter, const std::string& value, std::list<std::string>* texts)
{
    if (parameter.type == module_parameter_text) {
        texts->push_back(value);
        *static_cast<const char**>(parameter.value) = texts->back().c_str();
        return "";
    }
    int32_t number = 0;
    const char* const end = value.data() + value.size();
    const auto [stopped, error] = std::from_chars(value.data(), end, number);
    if (error != std::errc() || stopped != end)
        return "'" + value + "' is no value for '" + parameter.name + "': write a whole decimal number of 32 bits";
    *static_cast<int32_t*>(parameter.value) = number;
    return "";
}

std::string set_all(const kernel_module_t& module, const std::string& parameters, std::list<std::string>* texts)
{
    std::vector<assignment> assignments;
    if (std::string why = split(parameters, &assignments); !why.empty()) return why;
    std::set<std::string> seen;
    for (const assignment& each : assignments) {
        const module_parameter_t* found = nullptr;
        for (int32_t i = 0; i < module.parameter_count; ++i)
            if (module.parameters[i].name == each.name) found = &module.parameters[i];
        if (!found) return "unknown parameter '" + each.name + "'";
        if (!seen.insert(each.name).second) return "parameter '" + each.name + "' is given twice";
        if (std::string why = set(*found, each.value, texts); !why.empty()) return why;
    }
    return "";
}

} // namespace

std::string set_parameters(const kernel_module_t& module, const std::string& parameters, std::list<std::string>* texts)
{
    const std::string why = set_all(module, parameters, texts);
    return why.empty() ? "" : why + "; " + valid_names(module);
}

} // namespace kernel
