// For commands that ask the SA of this machine's real fabric themselves, without the service.
#pragma once

#include <memory>
#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "console/record-list.h"
#include "host/fabric/umad/sa-client.h"
#include "host/result.h"

namespace cli
{

struct real_sa_options {
    std::string hca; // an HCA of this machine; "" means any
    int port = 0;    // of this HCA; 0 means any active port
    bool is_real = false;

    // Returns true if the user has chosen the real fabric, whatever fabric the service has.
    bool is_chosen() const { return is_real || !hca.empty(); }
};

// Adds --real, --hca and --port.
void add_real_sa_options(CLI::App& command, real_sa_options& options);

// Opens a client on an active port. If no port is active, the error names 'ats check', which explains why.
ats::result<std::unique_ptr<umad::sa_client>> open_real_sa(const real_sa_options& options);

// Like console::list_records(), but every error is of the kind `failed`: `unreachable` would give exit code 3, which
// means that the service does not answer.
ats::result<console::record_list> list_at_real_sa(umad::sa_client& sa, const console::record_filter& filter);

// Returns {"records", "remarks"} for the user.
nlohmann::json answer_about(const console::record_list& list);

} // namespace cli
