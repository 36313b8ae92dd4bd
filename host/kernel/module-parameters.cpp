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

// Splits the line into assignments. A value in double quotes may contain blanks.
ats::result<std::vector<assignment>> assignments_in(const std::string& line)
{
    std::vector<assignment> assignments;
    size_t begin = line.find_first_not_of(blanks);
    while (begin != std::string::npos) {
        const size_t equals = line.find_first_of("= \t\n", begin);
        const std::string name = line.substr(begin, equals - begin);
        if (equals == std::string::npos || line[equals] != '=')
            return ats::fail("'" + name + "' is not a parameter: write name=value");
        const bool has_quotes = equals + 1 < line.size() && line[equals + 1] == '"';
        const size_t value = equals + (has_quotes ? 2 : 1);
        const size_t end =
            has_quotes ? line.find('"', value) : std::min(line.find_first_of(blanks, value), line.size());
        if (end == std::string::npos) return ats::fail("the value of '" + name + "' lacks its closing quotation mark");
        assignments.push_back({name, line.substr(value, end - value)});
        begin = end + (has_quotes ? 1 : 0);
        if (begin < line.size() && !std::strchr(blanks, line[begin]))
            return ats::fail("a blank is missing after the value of '" + name + "'");
        begin = line.find_first_not_of(blanks, begin);
    }
    return assignments;
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

const module_parameter_t* find(const kernel_module_t& module, const std::string& name)
{
    for (int32_t i = 0; i < module.parameter_count; ++i)
        if (module.parameters[i].name == name) return &module.parameters[i];
    return nullptr;
}

ats::result<> set(const module_parameter_t& parameter, const std::string& value, std::list<std::string>* texts)
{
    if (parameter.type == module_parameter_text) {
        texts->push_back(value);
        *static_cast<const char**>(parameter.value) = texts->back().c_str();
        return {};
    }
    int32_t number = 0;
    const char* const end = value.data() + value.size();
    const auto [number_end, error] = std::from_chars(value.data(), end, number);
    if (error != std::errc() || number_end != end)
        return ats::fail("'" + value + "' is not a value for '" + parameter.name +
                         "': write a whole decimal number of 32 bits");
    *static_cast<int32_t*>(parameter.value) = number;
    return {};
}

ats::result<> set_all(const kernel_module_t& module, const std::string& parameters, std::list<std::string>* texts)
{
    const ats::result<std::vector<assignment>> assignments = assignments_in(parameters);
    if (!assignments) return ats::pass_on(assignments);
    std::set<std::string> names;
    for (const assignment& each : *assignments) {
        const module_parameter_t* parameter = find(module, each.name);
        if (!parameter) return ats::fail("unknown parameter '" + each.name + "'");
        if (!names.insert(each.name).second) return ats::fail("parameter '" + each.name + "' is given twice");
        if (ats::result<> result = set(*parameter, each.value, texts); !result) return result;
    }
    return {};
}

} // namespace

ats::result<> set_parameters(const kernel_module_t& module, const std::string& parameters,
                             std::list<std::string>* texts)
{
    const ats::result<> result = set_all(module, parameters, texts);
    if (result) return {};
    return ats::fail(ats::error_kind::invalid, result.error().text + "; " + valid_names(module));
}

} // namespace kernel
