// Everything that reads a text but is no file: addresses and GIDs as modules and people write them, module parameters,
// the ports report. The first byte chooses.
#include "console/control-report.h"
#include "fuzz/one-host.h"
#include "host/kernel/module-parameters.h"
#include "host/world/text.h"
#include "kernel/module.h"

namespace
{

void set_address(fuzz::one_host& at, const std::string& text)
{
    using set_address_fn_t = int32_t (*)(const char*);
    at.machine().enter("caller", [&] {
        kernel::held_symbol(at.machine().modules, "ats", "ats_sa_set_ip_addrs_str")
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
    const std::string why = kernel::set_parameters(module, text, &texts);
    fuzz::require(why.find('\n') == std::string::npos || text.find('\n') != std::string::npos, "a refusal is no line");
}

// What is read as a person wrote it reads the same as it is shown.
void read_as_people_write(const std::string& text)
{
    if (const auto ip = world::parse_ipv4(text))
        fuzz::require(world::parse_ipv4(world::format_ipv4(*ip)) == ip, "an address changes when it is shown");
    if (const auto gid = world::parse_gid(text))
        fuzz::require(*world::parse_gid(world::format_gid(*gid)) == *gid, "a GID changes when it is shown");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    static fuzz::one_host at;
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(bytes + 1), size - 1);
    switch (bytes[0] % 4) {
    case 0:
        set_address(at, text);
        break;
    case 1:
        set_parameters(text);
        break;
    case 2:
        read_as_people_write(text);
        break;
    default:
        console::parse_control_report(text);
    }
    at.check();
    return 0;
}
