#include "cli/service/world-config.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <map>
#include <set>

#include <toml++/toml.h>

#include "console/failure.h"
#include "console/identity.h"
#include "verbs.h"

namespace cli
{

namespace
{

constexpr int max_hosts = 1000;
constexpr int max_hcas = 32;

// One table being read: every key must be asked for, and what nobody asked for is refused.
class table_reader
{
  public:
    table_reader(const toml::table& table, std::string file) : table_(table), file_(std::move(file)) {}

    // "FILE:LINE: "
    std::string place_of(const toml::node& node) const
    {
        return file_ + ":" + std::to_string(node.source().begin.line) + ": ";
    }

    [[noreturn]] void refuse(const toml::node& where, const std::string& why) const
    {
        throw console::failure(console::exit_usage, place_of(where) + why);
    }

    // The node of that key, or null.
    const toml::node* find(const std::string& key)
    {
        known_.insert(key);
        return table_.get(key);
    }

    std::string text(const std::string& key, const std::string& otherwise)
    {
        const toml::node* node = find(key);
        if (!node) return otherwise;
        if (!node->is_string()) refuse(*node, "'" + key + "' must be a text in quotation marks");
        return node->as_string()->get();
    }

    int number(const std::string& key, int otherwise, int least, int most)
    {
        const toml::node* node = find(key);
        if (!node) return otherwise;
        const int64_t value = node->is_integer() ? node->as_integer()->get() : int64_t{least} - 1;
        if (value < least || value > most)
            refuse(*node, "'" + key + "' must be a whole number from " + std::to_string(least) + " to " +
                              std::to_string(most));
        return static_cast<int>(value);
    }

    const toml::table* table(const std::string& key)
    {
        const toml::node* node = find(key);
        if (node && !node->is_table()) refuse(*node, "'" + key + "' must be a table");
        return node ? node->as_table() : nullptr;
    }

    // The tables of an [[array]].
    std::vector<const toml::table*> tables(const std::string& key)
    {
        std::vector<const toml::table*> found;
        const toml::node* node = find(key);
        if (!node) return found;
        if (!node->is_array_of_tables()) refuse(*node, "'" + key + "' must be written as [[" + key + "]] tables");
        for (const toml::node& element : *node->as_array()) found.push_back(element.as_table());
        return found;
    }

    // To be called last: refuses the first key that nobody asked for.
    void finish() const
    {
        for (const auto& [key, value] : table_) {
            if (known_.contains(key.str())) continue;
            std::string valid;
            for (const std::string& name : known_) valid += (valid.empty() ? "" : ", ") + name;
            throw console::failure(console::exit_usage, file_ + ":" + std::to_string(key.source().begin.line) +
                                                            ": unknown key " + console::quote(std::string(key.str())) +
                                                            "; valid here are " + valid);
        }
    }

    const std::string& file() const { return file_; }

  private:
    const toml::table& table_;
    std::string file_;
    std::set<std::string, std::less<>> known_;
};

// Module parameters are passed on as they are written: insmod knows their names and types.
std::string read_parameters(table_reader& reader, const toml::table* parameters)
{
    std::string text;
    if (!parameters) return text;
    for (const auto& [name, value] : *parameters) {
        text += " " + std::string(name.str()) + "=";
        if (value.is_string() && value.as_string()->get().find('"') == std::string::npos)
            text += '"' + value.as_string()->get() + '"';
        else if (value.is_integer())
            text += std::to_string(value.as_integer()->get());
        else
            reader.refuse(value, "a module parameter is a whole number, or a text without quotation marks");
    }
    return text;
}

bool is_hca_name(const std::string& name)
{
    constexpr size_t longest = sizeof(kq_hca_name) - 1;
    return !name.empty() && name.size() <= longest &&
           std::ranges::all_of(name, [](unsigned char each) { return std::isprint(each); });
}

// Host number i, from 1, when it has no address of its own.
std::string numbered_address(size_t i)
{
    return "10.0." + std::to_string(i / 256) + "." + std::to_string(i % 256);
}

world::hca_plan read_hca(const toml::table& table, const std::string& file, size_t index, bool is_real)
{
    table_reader reader(table, file);
    world::hca_plan plan;
    const toml::node* const named = reader.find("name");
    if (is_real && !named) reader.refuse(table, "an HCA of a real fabric needs its name; 'ats check' lists them");
    plan.name = reader.text("name", "mthca" + std::to_string(index));
    if (!is_hca_name(plan.name)) reader.refuse(*named, "an HCA's name has 1 to 99 printable characters");
    if (!is_real) plan.ports = reader.number("ports", 1, 1, 2);
    reader.finish();
    return plan;
}

// A module's parameters may not say again, unchecked, what the host's own keys say.
void refuse_identity_parameters(table_reader& reader, const toml::table* ats)
{
    for (const auto& [parameter, key] : {std::pair{"ats_ipaddr_str", "address"}, std::pair{"ats_hostName_str", "name"}})
        if (const toml::node* const given = ats ? ats->get(parameter) : nullptr)
            reader.refuse(*given, std::string("give '") + key + "' in the [[host]] table instead of " + parameter);
}

struct read_host_plan {
    world::host_plan plan;
    std::string address;
};

read_host_plan read_host(const toml::table& table, const std::string& file, world_config& config)
{
    const bool is_real = config.fabric.is_real;
    const size_t index = config.hosts.size();
    table_reader reader(table, file);
    const std::string number = std::to_string(index + 1);
    world::host_plan plan;
    const bool is_named = reader.find("name") || !is_real;
    plan.name = is_named ? reader.text("name", "node" + number) : console::host_name_of_machine(config.remarks);
    if (!console::is_host_name(plan.name))
        reader.refuse(table, console::quote(plan.name) + " cannot be a host name: give it a 'name' of " +
                                 console::host_name_rule);

    const std::string address = reader.text("address", is_real ? "" : numbered_address(index + 1));
    if (address.empty()) reader.refuse(table, "a host on a real fabric needs its 'address', as in \"10.0.0.1\"");
    if (const toml::node* const given = reader.find("address"))
        console::value_or_throw(console::host_address_of(address, reader.place_of(*given)));

    plan.trace_level = reader.number("trace", world::trace_level_error, 0, 5);
    plan.log_bytes = bytes_of_kib(reader.number("log_kib", default_log_kib, least_log_kib, most_log_kib));
    const std::vector<const toml::table*> hcas = reader.tables("hca");
    if (is_real || !hcas.empty()) plan.hcas.clear();
    if (hcas.size() > max_hcas) reader.refuse(*hcas.back(), "a host has at most 32 HCAs");
    std::set<std::string> names;
    for (size_t i = 0; i < hcas.size(); ++i) {
        plan.hcas.push_back(read_hca(*hcas[i], file, i, is_real));
        if (!names.insert(plan.hcas.back().name).second)
            reader.refuse(*hcas[i],
                          "there are two HCAs named " + console::quote(plan.hcas.back().name) + " on one host");
    }

    refuse_identity_parameters(reader, reader.table("ats"));
    plan.modules = world::usual_modules(plan.name, address);
    for (world::module_plan& module : plan.modules)
        module.parameters += read_parameters(reader, reader.table(module.name));
    reader.finish();
    return {plan, address};
}

fabric_config read_fabric(const toml::table& table, const std::string& file)
{
    table_reader reader(table, file);
    fabric_config fabric;
    const auto word = [&](const char* key, const char* otherwise, std::initializer_list<std::string> valid) {
        const std::string chosen = reader.text(key, otherwise);
        if (std::ranges::count(valid, chosen) > 0) return chosen;
        std::string words;
        for (const std::string& each : valid) words += (words.empty() ? "" : " or ") + console::quote(each);
        reader.refuse(*reader.find(key), "'" + std::string(key) + "' must be " + words);
    };
    fabric.is_real = word("kind", "embedded", {"embedded", "umad"}) == "umad";
    fabric.capture = reader.text("capture", "");
    if (fabric.is_real) {
        constexpr int longest_interval_ms = 60'000;
        fabric.ports.sa_delete_p_key = delete_p_key_of(word("sa_delete_pkey", "auto", {"auto", "on", "off"}));
        fabric.ports.watch_interval_ticks =
            static_cast<uint64_t>(reader.number("port_interval_ms", 1000, 10, longest_interval_ms));
    }
    reader.finish();
    return fabric;
}

} // namespace

umad::delete_p_key delete_p_key_of(const std::string& word)
{
    if (word == "on") return umad::delete_p_key::on;
    return word == "off" ? umad::delete_p_key::off : umad::delete_p_key::automatic;
}

world_config real_host(const std::string& name, const std::string& address, const umad::fabric_options& ports)
{
    world_config config{.fabric = {.is_real = true, .ports = ports}};
    world::host_plan plan;
    plan.name = name.empty() ? console::host_name_of_machine(config.remarks) : name;
    if (!console::is_host_name(plan.name))
        throw console::failure(console::exit_usage, console::quote(plan.name) + " cannot be a host name: give --name " +
                                                        console::host_name_rule);
    console::value_or_throw(console::host_address_of(address));
    plan.hcas.clear();
    plan.modules = world::usual_modules(plan.name, address);
    config.hosts = {plan};
    return config;
}

world_config numbered_hosts(int count)
{
    world_config config;
    for (int i = 1; i <= count; ++i) {
        world::host_plan plan;
        plan.name = "node" + std::to_string(i);
        plan.modules = world::usual_modules(plan.name, numbered_address(static_cast<size_t>(i)));
        config.hosts.push_back(std::move(plan));
    }
    return config;
}

world_config read_world_config(const std::string& path)
{
    toml::table root;
    try {
        root = toml::parse_file(path);
    } catch (const toml::parse_error& error) {
        const uint32_t line = error.source().begin.line; // 0: it cannot be read at all
        throw console::failure(console::exit_usage, path + (line > 0 ? ":" + std::to_string(line) : "") + ": " +
                                                        std::string(error.description()));
    }

    table_reader reader(root, path);
    world_config config;
    if (const toml::table* fabric = reader.table("fabric")) config.fabric = read_fabric(*fabric, path);
    std::set<std::string> names;
    std::map<std::string, std::string> owners; // by address
    for (const toml::table* host : reader.tables("host")) {
        if (config.fabric.is_real && !config.hosts.empty())
            reader.refuse(*host, "on a real fabric there is one host, which is this machine");
        const auto [plan, address] = read_host(*host, path, config);
        config.hosts.push_back(plan);
        if (!names.insert(plan.name).second)
            reader.refuse(*host, "there are two hosts named " + console::quote(plan.name));
        if (const auto [owner, is_new] = owners.emplace(address, plan.name); !is_new)
            config.remarks.push_back(reader.place_of(*host) +
                                     console::shared_address_warning(plan.name, owner->second, address));
    }
    reader.finish();
    if (config.hosts.empty())
        throw console::failure(console::exit_usage, path + ":1: no [[host]] table: name at least one host");
    if (config.hosts.size() > max_hosts) throw console::failure(console::exit_usage, path + ":1: more than 1000 hosts");
    if (config.fabric.is_real)
        for (const world::hca_plan& hca : config.hosts.front().hcas) config.fabric.ports.hcas.push_back(hca.name);
    return config;
}

} // namespace cli
