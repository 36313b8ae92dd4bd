#include "console/host-plans.h"

namespace console
{

namespace
{

std::string quoted(const std::string& text)
{
    return '"' + text + '"';
}

} // namespace

stack::registry_value trace_setting(int level)
{
    return {registry_key, trace_level_name, level};
}

std::vector<world::module_plan> usual_modules(const std::string& host_name, const std::string& ipv4)
{
    return {{"ibat", ""},
            {"ucm", ""},
            {"ats", "ats_ipaddr_str=" + quoted(ipv4) + " ats_hostName_str=" + quoted(host_name)}};
}

world::host_plan usual_host(const std::string& name, const std::string& ipv4, int trace_level)
{
    return {.name = name, .registry = {trace_setting(trace_level)}, .modules = usual_modules(name, ipv4)};
}

} // namespace console
