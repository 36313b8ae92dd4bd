// Fuzzes the parsers of short texts: the addresses that the module ats reads, module parameters, the addresses and GIDs
// that people write, and the report of the control file. The first byte of an input selects the parser.
#include "console/control-report.h"
#include "fuzz/one-host.h"
#include "host/kernel/module-parameters.h"
#include "host/world/text.h"
#include "kernel/module.h"

namespace
{

void set_address(fuzz::one_host& host, const std::string& text)
{
    using set_address_fn_t = int32_t (*)(const char*);
    host.machine().enter("caller", [&] {
        kernel::held_symbol(host.machine().modules, "ats", "ats_sa_set_ip_addrs_str")
            .as<set_address_fn_t>()(text.c_str());
    });
}

void set_parameters(const std::string& text)
{
    const char* name = "none";
    int32_t number = 0;
    const module_parameter_t parameters[] = {{"name", module_parameter_text, &name, ""},
                                             {"number", module_parameter_int, &number, ""}};
    kernel_module_t module{};
    module.name = "fuzzed";
    module.parameters = parameters;
    module.parameter_count = 2;
    std::list<std::string> texts;
    const ats::result<> result = kernel::set_parameters(module, text, &texts);
    const bool is_one_line = result || result.error().text.find('\n') == std::string::npos;
    fuzz::require(is_one_line || text.find('\n') != std::string::npos, "an error is not one line");
}

// A value must stay the same when it is formatted and parsed again.
void parse_and_format(const std::string& text)
{
    if (const auto ip = world::parse_ipv4(text))
        fuzz::require(world::parse_ipv4(world::format_ipv4(*ip)) == ip, "an address changes when it is shown");
    if (const auto gid = world::parse_gid(text))
        fuzz::require(*world::parse_gid(world::format_gid(*gid)) == *gid, "a GID changes when it is shown");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    static fuzz::one_host host;
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(bytes + 1), size - 1);
    switch (bytes[0] % 4) {
    case 0:
        set_address(host, text);
        break;
    case 1:
        set_parameters(text);
        break;
    case 2:
        parse_and_format(text);
        break;
    default:
        console::parse_control_report(text);
    }
    host.check();
    return 0;
}
