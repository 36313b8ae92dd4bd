#include "tools/fabric/ats-hosts.h"

#include <algorithm>

namespace fabric_tools
{

namespace
{

const std::string program_path = ATS_PROGRAM;

json parse(const std::string& text)
{
    json value = json::parse(text, nullptr, false);
    return value.is_discarded() ? json() : value;
}

} // namespace

std::string node_name(int number)
{
    return "node" + std::to_string(number);
}

std::string address_of(int number)
{
    return "10.0.0." + std::to_string(number);
}

std::string ats_program()
{
    return program_path;
}

std::vector<std::string> node_names(int count, std::vector<std::string> others)
{
    for (int i = 1; i <= count; ++i) others.push_back(node_name(i));
    return others;
}

json ask_service(ibsim_fabric& net, const std::string& socket, std::vector<std::string> command)
{
    command.insert(command.begin(), program_path);
    command.insert(command.end(), {"--json", "--socket", socket});
    process client({.arguments = command, .output = net.new_file("client")});
    client.wait_end(60s);
    return parse(client.output());
}

fabric_host::fabric_host(ibsim_fabric& net, int number, const std::vector<std::string>& options,
                         const std::vector<std::string>& environment)
    : net_(net), name_(node_name(number)), socket_(net.folder() + "/" + name_ + ".sock")
{
    std::vector<std::string> arguments = {program_path, "run",       "--fabric",         "umad",     "--name",
                                          name_,        "--address", address_of(number), "--socket", socket_};
    arguments.insert(arguments.end(), options.begin(), options.end());
    program_ = net.start(name_, name_, arguments, environment);
}

bool fabric_host::wait_serving(duration longest)
{
    return program_->wait_line("clients are served", longest).has_value();
}

json fabric_host::port() const
{
    const json status = ask({"status"});
    const auto first = json::json_pointer("/hosts/0/hcas/0/ports/0");
    return status.contains(first) ? status[first] : json::object();
}

json records_at_sa(ibsim_fabric& net, const std::string& node, const std::vector<std::string>& filter)
{
    std::vector<std::string> command = {program_path, "sa", "show", "--real", "--json"};
    command.insert(command.end(), filter.begin(), filter.end());
    const json answer = parse(net.run(node, command));
    return answer.is_object() ? answer.value("records", json()) : json();
}

int count_records(ibsim_fabric& net, const std::string& node)
{
    const json records = records_at_sa(net, node);
    return records.is_array() ? static_cast<int>(records.size()) : -1;
}

std::vector<std::string> texts_of(const json& records)
{
    std::vector<std::string> texts;
    for (const json& record : records)
        texts.push_back(record.value("host_name", "") + " " + record.value("address", "") + " " +
                        record.value("gid", ""));
    std::ranges::sort(texts);
    return texts;
}

} // namespace fabric_tools
