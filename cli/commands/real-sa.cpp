#include "cli/commands/real-sa.h"

namespace cli
{

void add_real_sa_options(CLI::App& command, real_sa_options& options)
{
    command
        .add_flag("--real", options.is_real,
                  "Ask the SA of this machine's real fabric, even if another service runs here")
        ->option_text(" ");
    auto* hca =
        command.add_option("--hca", options.hca, "Ask the SA of the real fabric through this HCA")->option_text("NAME");
    command.add_option("--port", options.port, "With --hca: ask through this port (default: the first active one)")
        ->needs(hca)
        ->option_text("N");
}

ats::result<std::unique_ptr<umad::sa_client>> open_real_sa(const real_sa_options& options)
{
    auto sa = umad::open_sa_client(options.hca, options.port);
    if (sa) return sa;
    const bool has_no_active_port = sa.error().kind == ats::error_kind::not_found;
    return ats::fail(sa.error().text + (has_no_active_port ? "; 'ats check' says more" : ""));
}

} // namespace cli
