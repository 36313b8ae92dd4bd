#include "cli/service/world-config.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>

#include "cli/service/metrics-address.h"
#include "cli/service/table-reader.h"
#include "console/errors.h"
#include "console/host-plans.h"
#include "console/identity.h"
#include "verbs.h"

namespace cli
{

namespace
{

constexpr int max_hosts = 1000;
constexpr int max_hcas = 32;

using ats::error_kind;

// Returns the parameters of a module as text for insmod: " NAME=VALUE" for each. Does not check if the module has such
// parameters, and with these types, because insmod does so.
std::string read_parameters(table_reader& reader, const std::string& module)
{
    std::string parameters;
    const toml::table* table = reader.table(module);
    if (!table) return parameters;
    for (const auto& [name, value] : *table) {
        parameters += " " + std::string(name.str()) + "=";
        if (value.is_string() && value.as_string()->get().find('"') == std::string::npos)
            parameters += '"' + value.as_string()->get() + '"';
        else if (value.is_integer())
            parameters += std::to_string(value.as_integer()->get());
        else
            reader.refuse(value, "a module parameter is a whole number, or a text without quotation marks");
    }
    return parameters;
}

bool is_hca_name(const std::string& name)
{
    constexpr size_t longest = sizeof(kq_hca_name) - 1;
    return !name.empty() && name.size() <= longest &&
           std::ranges::all_of(name, [](unsigned char byte) { return std::isprint(byte); });
}

// Returns the default address of the host with this number on an embedded fabric. The first host has the number 1.
std::string numbered_address(size_t number)
{
    return "10.0." + std::to_string(number / 256) + "." + std::to_string(number % 256);
}

ats::result<world::hca_plan> read_hca(const toml::table& table, const std::string& file, size_t index, bool is_real)
{
    table_reader reader(table, file);
    world::hca_plan plan;
    const toml::node* const name = reader.find("name");
    if (is_real && !name) reader.refuse(table, "an HCA of a real fabric needs its name; 'ats check' lists them");
    plan.name = reader.text("name", "mthca" + std::to_string(index));
    if (!is_hca_name(plan.name)) reader.refuse(*name, "an HCA's name has 1 to 99 printable characters");
    if (!is_real) plan.ports = reader.number("ports", 1, 1, 2);
    return reader.finish().map([&] { return plan; });
}

// Returns the HCAs of a host. If the host's table lists none, a host on an embedded fabric gets `default_hcas`. A host
// on a real fabric then gets an empty list, which means all HCAs of this machine.
std::vector<world::hca_plan> read_hcas(table_reader& reader, const std::string& file, bool is_real,
                                       std::vector<world::hca_plan> default_hcas)
{
    const std::vector<const toml::table*> tables = reader.tables("hca");
    if (!is_real && tables.empty()) return default_hcas;
    if (tables.size() > max_hcas) reader.refuse(*tables.back(), "a host has at most 32 HCAs");
    std::vector<world::hca_plan> hcas;
    std::set<std::string> names;
    for (size_t i = 0; i < tables.size(); ++i) {
        const ats::result<world::hca_plan> hca = read_hca(*tables[i], file, i, is_real);
        if (!hca)
            reader.keep(hca.error());
        else if (!names.insert(hca->name).second)
            reader.refuse(*tables[i], "there are two HCAs named " + console::quote(hca->name) + " on one host");
        else
            hcas.push_back(*hca);
    }
    return hcas;
}

// Refuses module parameters that set the host's address or name. The keys 'address' and 'name' do this, too, and their
// values are checked. The value of a module parameter is not checked.
void refuse_identity_parameters(table_reader& reader)
{
    const toml::table* const ats = reader.table("ats");
    if (!ats) return;
    for (const auto& [parameter, key] : {std::pair{"ats_ipaddr_str", "address"}, std::pair{"ats_hostName_str", "name"}})
        if (const toml::node* const value = ats->get(parameter))
            reader.refuse(*value, std::string("give '") + key + "' in the [[host]] table instead of " + parameter);
}

verification read_verification(table_reader& reader)
{
    constexpr int longest_period_seconds = 86'400, highest_skew_percent = 100;
    verification verification;
    verification.period_seconds =
        reader.number("verify_seconds", verification.period_seconds, 0, longest_period_seconds);
    verification.skew_percent =
        reader.number("verify_skew_percent", verification.skew_percent, 0, highest_skew_percent);
    return verification;
}

host_config host_of(host_settings settings)
{
    host_config host{console::usual_host(settings.name, settings.address, settings.trace)};
    host.settings = std::move(settings);
    return host;
}

// Fails (invalid) if a host cannot have the name or the address.
ats::result<> check_identity(const identity_options& identity)
{
    if (!identity.name.empty() && !console::is_host_name(identity.name))
        return ats::fail(error_kind::invalid, console::quote(identity.name) + " cannot be a host name: give --name " +
                                                  console::host_name_rule);
    if (identity.address.empty()) return {};
    return console::host_address_of(identity.address).map([](uint32_t) {});
}

// Returns the host's name: `option`, or the name in `table`, or the default. Refuses a wrong name in the table, even if
// `option` replaces it. The table is that of `reader`.
std::string read_name(table_reader& reader, const toml::table& table, const std::string& option, world_config& config)
{
    std::string name = option;
    if (reader.find("name") || (name.empty() && !config.fabric.is_real))
        name = reader.text("name", "node" + std::to_string(config.hosts.size() + 1));
    else if (name.empty())
        name = console::host_name_of_machine(config.warnings);
    if (!console::is_host_name(name))
        reader.refuse(table,
                      console::quote(name) + " cannot be a host name: give it a 'name' of " + console::host_name_rule);
    return option.empty() ? name : option;
}

// Returns the host's address, like read_name().
std::string read_address(table_reader& reader, const toml::table& table, const std::string& option,
                         const world_config& config)
{
    const std::string address =
        reader.text("address", config.fabric.is_real ? option : numbered_address(config.hosts.size() + 1));
    if (address.empty())
        reader.refuse(table, "a host on a real fabric needs its 'address', as in \"10.0.0.1\", or --address");
    if (const toml::node* const node = reader.find("address")) {
        const ats::result<uint32_t> ip = console::host_address_of(address, reader.place_of(*node));
        if (!ip) reader.keep(ip.error());
    }
    return option.empty() ? address : option;
}

// Reads the host that follows the hosts of `config`. Adds warnings to `config`, but not the host.
ats::result<host_config> read_host(const toml::table& table, const std::string& file, const identity_options& identity,
                                   world_config& config)
{
    const bool is_real = config.fabric.is_real;
    table_reader reader(table, file);
    host_settings settings;
    settings.name = read_name(reader, table, identity.name, config);
    settings.address = read_address(reader, table, identity.address, config);
    settings.trace = reader.number("trace", settings.trace, ZR_PANIC, ZR_FUNC);
    settings.verification = read_verification(reader);
    settings.spread_seconds = reader.number("spread_seconds", settings.spread_seconds, 0, longest_spread_seconds);

    host_config host = host_of(settings);
    host.log_bytes = bytes_of_kib(reader.number("log_kib", default_log_kib, least_log_kib, most_log_kib));
    host.hcas = read_hcas(reader, file, is_real, std::move(host.hcas));
    refuse_identity_parameters(reader);
    for (world::module_plan& module : host.modules) {
        host.parameters.push_back(read_parameters(reader, module.name));
        module.parameters += host.parameters.back();
    }
    return reader.finish().map([&] { return host; });
}

ats::result<fabric_config> read_fabric(const toml::table& table, const std::string& file)
{
    constexpr int longest_interval_ms = 60'000;
    table_reader reader(table, file);
    fabric_config fabric;
    fabric.is_real = reader.word("kind", "embedded", {"embedded", "umad"}) == "umad";
    fabric.capture = reader.text("capture", "");
    if (fabric.is_real) {
        fabric.ports.sa_delete_p_key = delete_p_key_of(reader.word("sa_delete_pkey", "auto", {"auto", "on", "off"}));
        fabric.ports.watch_interval_ticks =
            static_cast<uint64_t>(reader.number("port_interval_ms", 100, 10, longest_interval_ms));
    }
    return reader.finish().map([&] { return fabric; });
}

access_rule read_rule(table_reader& reader, const std::string& key)
{
    const ats::result<access_rule> rule = access_rule_of(reader.text(key, "owner"));
    if (rule) return *rule;
    reader.refuse(*reader.find(key), rule.error().text);
    return {};
}

ats::result<access_rules> read_access(const toml::table& table, const std::string& file)
{
    constexpr int highest_level = 5;
    table_reader reader(table, file);
    access_rules access;
    access.questions = read_rule(reader, "questions");
    access.orders = read_rule(reader, "orders");
    access.log_level = reader.number("log_level", 0, 0, highest_level);
    return reader.finish().map([&] { return access; });
}

ats::result<service_limits> read_limits(const toml::table& table, const std::string& file)
{
    constexpr int most = 1'000'000, most_bytes = 1 << 30;
    table_reader reader(table, file);
    const auto read = [&](const char* key, size_t& limit, int least, int highest) {
        limit = static_cast<size_t>(reader.number(key, static_cast<int>(limit), least, highest));
    };
    service_limits limits;
    read("connections", limits.connections, 1, most);
    read("questions", limits.questions, 1, most);
    read("line_bytes", limits.line_bytes, 1024, most_bytes);
    read("unread_bytes", limits.unread_bytes, 65536, most_bytes);
    return reader.finish().map([&] { return limits; });
}

ats::result<acm_config> read_acm(const toml::table& table, const std::string& file)
{
    constexpr int shortest_timeout_ms = 10, longest_timeout_ms = 60'000;
    table_reader reader(table, file);
    acm_config acm;
    acm.is_served = reader.word("serve", "off", {"on", "off"}) == "on";
    acm.socket = reader.text("socket", acm.socket);
    acm.timeout_ms = reader.number("timeout_ms", acm.timeout_ms, shortest_timeout_ms, longest_timeout_ms);
    return reader.finish().map([&] { return acm; });
}

ats::result<metrics_config> read_metrics(const toml::table& table, const std::string& file)
{
    table_reader reader(table, file);
    metrics_config metrics;
    metrics.textfile = reader.text("textfile", "");
    metrics.listen = reader.text("listen", "");
    if (!metrics.listen.empty() && !metrics_address_of(metrics.listen))
        reader.refuse(*reader.find("listen"), "listen is an IPv4 address and a port, as in \"127.0.0.1:9783\"");
    return reader.finish().map([&] { return metrics; });
}

// Reads the hosts of the file. Adds the hosts and warnings to `config`, whose fabric must already be read. Stops at the
// first host that cannot be read.
void read_hosts(table_reader& reader, const std::string& file, const identity_options& identity, world_config& config)
{
    const std::vector<const toml::table*> tables = reader.tables("host");
    if (tables.size() > 1 && !(identity.name.empty() && identity.address.empty()))
        return reader.refuse(*tables[1], "--name and --address are for a file with one [[host]] table");
    std::set<std::string> names;
    std::map<std::string, std::string> owners; // by address
    for (const toml::table* table : tables) {
        if (config.fabric.is_real && !config.hosts.empty())
            reader.refuse(*table, "on a real fabric there is one host, which is this machine");
        const ats::result<host_config> host = read_host(*table, file, identity, config);
        if (!host) return reader.keep(host.error());
        const std::string &name = host->settings.name, &address = host->settings.address;
        config.hosts.push_back(*host);
        if (!names.insert(name).second) reader.refuse(*table, "there are two hosts named " + console::quote(name));
        const auto [owner, is_new] = owners.emplace(address, name);
        if (!is_new)
            config.warnings.push_back(reader.place_of(*table) +
                                      console::shared_address_warning(name, owner->second, address));
    }
}

ats::result<toml::table> parse(const std::string& path)
{
    if (access(path.c_str(), R_OK) != 0)
        return ats::fail(error_kind::invalid, path + " cannot be read: " + std::strerror(errno));
    std::error_code status; // after an error, the path counts as a file; parse_file() then explains the error
    if (std::filesystem::exists(path, status) && !std::filesystem::is_regular_file(path, status))
        return ats::fail(error_kind::invalid, path + " is not a file");
    try {
        return toml::parse_file(path);
    } catch (const toml::parse_error& error) {
        const uint32_t line = error.source().begin.line; // 0 if the file cannot be read
        return ats::fail(error_kind::invalid,
                         path + (line > 0 ? ":" + std::to_string(line) : "") + ": " + std::string(error.description()));
    }
}

} // namespace

umad::delete_p_key delete_p_key_of(const std::string& word)
{
    if (word == "on") return umad::delete_p_key::on;
    return word == "off" ? umad::delete_p_key::off : umad::delete_p_key::automatic;
}

ats::result<world_config> real_host(const identity_options& identity, const umad::fabric_options& ports)
{
    if (identity.address.empty())
        return ats::fail(error_kind::invalid, "a host on a real fabric needs its address: add --address, as in "
                                              "--address 10.0.0.1 (that of its IPoIB interface, if it has one)");
    world_config config{.fabric = {.is_real = true, .ports = ports}};
    identity_options host = identity;
    if (host.name.empty()) host.name = console::host_name_of_machine(config.warnings);
    if (const ats::result<> check = check_identity(host); !check) return ats::pass_on(check);
    config.hosts = {host_of({.name = host.name, .address = host.address})};
    config.hosts.front().hcas.clear();
    return config;
}

world_config numbered_hosts(int count)
{
    world_config config;
    for (int i = 1; i <= count; ++i)
        config.hosts.push_back(
            host_of({.name = "node" + std::to_string(i), .address = numbered_address(static_cast<size_t>(i))}));
    return config;
}

ats::result<world_config> read_world_config(const std::string& path, const identity_options& identity)
{
    if (const ats::result<> check = check_identity(identity); !check) return ats::pass_on(check);
    const ats::result<toml::table> root = parse(path);
    if (!root) return ats::pass_on(root);
    table_reader reader(*root, path);
    world_config config;
    if (const toml::table* table = reader.table("fabric")) {
        const ats::result<fabric_config> fabric = read_fabric(*table, path);
        if (!fabric) return ats::pass_on(fabric);
        config.fabric = *fabric;
    }
    if (const toml::table* table = reader.table("access")) {
        const ats::result<access_rules> access = read_access(*table, path);
        if (!access) return ats::pass_on(access);
        config.access = *access;
    }
    if (const toml::table* table = reader.table("limits")) {
        const ats::result<service_limits> limits = read_limits(*table, path);
        if (!limits) return ats::pass_on(limits);
        config.limits = *limits;
    }
    if (const toml::table* table = reader.table("acm")) {
        const ats::result<acm_config> acm = read_acm(*table, path);
        if (!acm) return ats::pass_on(acm);
        config.acm = *acm;
    }
    if (const toml::table* table = reader.table("metrics")) {
        const ats::result<metrics_config> metrics = read_metrics(*table, path);
        if (!metrics) return ats::pass_on(metrics);
        config.metrics = *metrics;
    }
    read_hosts(reader, path, identity, config);
    if (const ats::result<> finished = reader.finish(); !finished) return ats::pass_on(finished);
    if (config.hosts.empty())
        return ats::fail(error_kind::invalid, path + ":1: no [[host]] table: name at least one host");
    if (config.hosts.size() > max_hosts) return ats::fail(error_kind::invalid, path + ":1: more than 1000 hosts");
    if (config.fabric.is_real)
        for (const world::hca_plan& hca : config.hosts.front().hcas) config.fabric.ports.hcas.push_back(hca.name);
    return config;
}

} // namespace cli
