#include <algorithm>
#include <cassert>
#include <string_view>

#include <fmt/format.h>

#include "cli/metrics/metrics.h"
#include "cli/service/registration.h"
#include "console/log-filter.h"
#include "host/peers/ibat-exports.h"
#include "host/peers/ibat-path-exports.h"
#include "host/stack/gsi-service.h"
#include "host/world/published.h"
#include "records/host-record.h"

namespace metrics
{

namespace
{

constexpr double nanoseconds_per_second = 1e9;

// All families, in the order in which they are printed.
const std::vector<family> all_families = {
    {"ats_build_info", "The version of the service, and the kind of its fabric.", type::gauge},
    {"ats_uptime_seconds", "Time since the start of the service.", type::gauge},
    {"ats_host_up", "1 if the host's modules are loaded.", type::gauge},
    {"ats_port_state", "PortState: 1 down, 2 initialising, 3 armed, 4 active.", type::gauge},
    {"ats_port_lid", "The LID of the port; 0 if it has none.", type::gauge},
    {"ats_port_sm_lid", "The LID of the port's subnet manager; 0 if it has none.", type::gauge},
    {"ats_registered", "1 if the SA has the host's record, according to its answers.", type::gauge},
    {"ats_registration_confirmed_age_seconds", "Time since the SA last confirmed the record that was sent last.",
     type::gauge},
    {"ats_registration_restores_total", "Records that were sent again because the SA had lost or changed them.",
     type::counter},
    {"ats_lookups_total", "Answers to clients about addresses, GIDs and paths.", type::counter},
    {"ats_lookup_duration_seconds", "Time that an answer took, by its source.", type::histogram},
    {"ats_ibat_cache_entries", "Mappings in the cache of addresses.", type::gauge},
    {"ats_ibat_pending_requests", "Addresses that the SA is being asked about.", type::gauge},
    {"ats_ibat_lookups_total", "Lookups in the cache of addresses, by hit or miss.", type::counter},
    {"ats_ibat_requests_total", "Questions about addresses to the SA, by first try, retry, or refused by the stack.",
     type::counter},
    {"ats_ibat_answers_total", "Results of questions about addresses to the SA.", type::counter},
    {"ats_path_cache_entries", "Paths in the cache.", type::gauge},
    {"ats_path_pending_requests", "Paths that the SA is being asked about.", type::gauge},
    {"ats_path_lookups_total", "Lookups in the cache of paths, by hit or miss.", type::counter},
    {"ats_path_requests_total", "Questions about paths to the SA, by first try, retry, or refused by the stack.",
     type::counter},
    {"ats_path_answers_total", "Results of questions about paths to the SA.", type::counter},
    {"ats_path_drops_total", "Paths dropped from the cache before they expired.", type::counter},
    {"ats_datagram_pool_size", "Datagrams of the pool.", type::gauge},
    {"ats_datagram_pool_free", "Datagrams of the pool that are not in use.", type::gauge},
    {"ats_sa_requests_total", "Requests sent to the SA, by method and attribute.", type::counter},
    {"ats_sa_answers_total", "Answers of the SA, by status.", type::counter},
    {"ats_datagrams_dropped_total", "Datagrams that were not sent or not delivered, by reason.", type::counter},
    {"ats_door_connections", "Connections of clients now.", type::gauge},
    {"ats_door_connections_total", "Connections of clients since the start.", type::counter},
    {"ats_door_requests_denied_total", "Requests that the access rules refused.", type::counter},
    {"ats_door_limits_reached_total",
     "Connections, requests and lines that a limit of their user or connection refused.", type::counter},
    {"ats_log_lines_total", "Lines of the host's log, by trace level; plain: a line without one.", type::counter},
};

class collection
{
  public:
    void add(std::string_view name, std::vector<label> labels, double value, const char* suffix = "")
    {
        const auto position = std::ranges::find_if(families_, [&](const family& each) { return name == each.name; });
        assert(position != families_.end());
        position->samples.push_back({std::move(labels), value, suffix});
    }

    void add(std::string_view name, std::vector<label> labels, const cli::counter& counter)
    {
        add(name, std::move(labels), static_cast<double>(counter.load(std::memory_order_relaxed)));
    }

    // A sample for add_parts(): the value of its last label, and the value of the sample itself.
    struct part {
        const char* word;
        uint64_t value;
    };
    void add_parts(std::string_view name, const std::vector<label>& labels, const char* last_label,
                   std::initializer_list<part> parts)
    {
        for (const part& part : parts) {
            std::vector<label> part_labels = labels;
            part_labels.emplace_back(last_label, part.word);
            add(name, std::move(part_labels), static_cast<double>(part.value));
        }
    }

    std::vector<family> take() { return std::move(families_); }

  private:
    std::vector<family> families_ = all_families;
};

void add_ports(collection& table, world::host& host)
{
    for (fabric::hca* hca : host.machine().hcas())
        for (int port = 1; port <= hca->port_count(); ++port) {
            const fabric::port_attributes attributes = hca->read_port(port);
            const std::vector<label> labels = {
                {"host", host.name()}, {"hca", hca->name()}, {"port", std::to_string(port)}};
            table.add("ats_port_state", labels, static_cast<double>(attributes.state));
            table.add("ats_port_lid", labels, attributes.lid);
            table.add("ats_port_sm_lid", labels, attributes.sm_lid);
        }
}

void add_registrations(collection& table, world::host& host)
{
    for (const nlohmann::json& hca : cli::registrations_of(host)) {
        const std::vector<label> labels = {{"host", host.name()}, {"hca", hca.at("hca")}};
        table.add("ats_registered", labels, hca.at("registered") == true ? 1 : 0);
        if (hca.at("confirmed_seconds").is_number())
            table.add("ats_registration_confirmed_age_seconds", labels, hca.at("confirmed_seconds").get<double>());
    }
}

// Call it inside machine::enter() of the host's machine.
void add_gsi(collection& table, world::host& host)
{
    const auto& gsi = host.machine().get<stack::gsi>();
    for (const stack::registration_view& view : gsi.registrations())
        if (records::is_host_record(view.record.record))
            table.add("ats_registration_restores_total", {{"host", host.name()}, {"hca", view.hca}},
                      static_cast<double>(view.record.restores));
    for (const stack::gsi_pool_view& pool : gsi.pools()) {
        const std::vector<label> labels = {{"host", host.name()}, {"pool", pool.name}};
        table.add("ats_datagram_pool_size", labels, static_cast<double>(pool.size));
        table.add("ats_datagram_pool_free", labels, static_cast<double>(pool.free));
    }
    for (const stack::gsi_adapter_view& adapter : gsi.adapters()) {
        const std::vector<label> labels = {{"host", host.name()}, {"hca", adapter.hca}};
        for (size_t i = 0; i < stack::sa_request_count; ++i) {
            const auto& [method, attribute] = stack::sa_request_texts.at(i);
            table.add("ats_sa_requests_total", {labels[0], labels[1], {"method", method}, {"attribute", attribute}},
                      static_cast<double>(adapter.sa.requests.at(i)));
        }
        for (size_t i = 0; i < stack::sa_status_count; ++i)
            table.add("ats_sa_answers_total", {labels[0], labels[1], {"status", stack::sa_status_texts.at(i)}},
                      static_cast<double>(adapter.sa.answers.at(i)));
        table.add_parts("ats_datagrams_dropped_total", labels, "reason",
                        {{"send_refused", adapter.counts.refused},
                         {"no_response", adapter.counts.dropped_no_response},
                         {"no_class", adapter.counts.dropped_no_class},
                         {"no_asker", adapter.counts.dropped_no_asker},
                         {"no_datagram", adapter.counts.dropped_no_datagram}});
    }
}

// Call it inside machine::enter() of the host's machine.
void add_ibat(collection& table, world::host& host)
{
    const world::published<ibat_counters_fn_t> read(host.machine(), "ibat_counters_fn");
    if (!read) return;
    ibat_counters_t counters{};
    (*read)(&counters);
    const std::vector<label> labels = {{"host", host.name()}};
    table.add("ats_ibat_cache_entries", labels, static_cast<double>(counters.entries));
    table.add("ats_ibat_pending_requests", labels, static_cast<double>(counters.pending));
    table.add_parts("ats_ibat_lookups_total", labels, "result", {{"hit", counters.hits}, {"miss", counters.misses}});
    table.add_parts("ats_ibat_requests_total", labels, "try",
                    {{"first", counters.requests}, {"again", counters.retries}, {"refused", counters.refused}});
    table.add_parts("ats_ibat_answers_total", labels, "result",
                    {{"ok", counters.answers},
                     {"not_found", counters.negative_answers},
                     {"timed_out", counters.timeouts},
                     {"unsolicited", counters.unsolicited},
                     {"ignored", counters.ignored},
                     {"conflict", counters.conflicts}});
}

// Call it inside machine::enter() of the host's machine.
void add_paths(collection& table, world::host& host)
{
    const world::published<ibat_path_counters_fn_t> read(host.machine(), "ibat_path_counters_fn");
    if (!read) return;
    ibat_path_counters_t counters{};
    (*read)(&counters);
    const std::vector<label> labels = {{"host", host.name()}};
    table.add("ats_path_cache_entries", labels, static_cast<double>(counters.entries));
    table.add("ats_path_pending_requests", labels, static_cast<double>(counters.pending));
    table.add("ats_path_drops_total", labels, static_cast<double>(counters.drops));
    table.add_parts("ats_path_lookups_total", labels, "result",
                    {{"hit", counters.hits}, {"miss", counters.lookups - std::min(counters.lookups, counters.hits)}});
    table.add_parts("ats_path_requests_total", labels, "try",
                    {{"first", counters.requests}, {"again", counters.retries}, {"refused", counters.refused}});
    table.add_parts("ats_path_answers_total", labels, "result",
                    {{"ok", counters.answers},
                     {"not_found", counters.absences},
                     {"error", counters.errors},
                     {"timed_out", counters.timeouts},
                     {"unsolicited", counters.strays}});
}

void add_histogram(collection& table, const std::vector<label>& labels, const cli::latency_histogram& histogram)
{
    constexpr const char* name = "ats_lookup_duration_seconds";
    uint64_t total = 0;
    for (size_t i = 0; i < histogram.counts.size(); ++i) {
        total += histogram.counts.at(i).load(std::memory_order_relaxed);
        std::vector<label> bucket_labels = labels;
        bucket_labels.emplace_back(
            "le", i < histogram.bounds_ns.size()
                      ? fmt::format("{}", static_cast<double>(histogram.bounds_ns.at(i)) / nanoseconds_per_second)
                      : "+Inf");
        table.add(name, std::move(bucket_labels), static_cast<double>(total), "_bucket");
    }
    table.add(name, labels,
              static_cast<double>(histogram.sum_ns.load(std::memory_order_relaxed)) / nanoseconds_per_second, "_sum");
    table.add(name, labels, static_cast<double>(total), "_count");
}

void add_lookups(collection& table, const std::string& host, const cli::lookup_statistics& lookups)
{
    for (size_t kind = 0; kind < lookups.counts.size(); ++kind)
        for (size_t outcome = 0; outcome < cli::lookup_outcome_words.size(); ++outcome) {
            const auto& [source, result] = cli::lookup_outcome_words.at(outcome);
            table.add(
                "ats_lookups_total",
                {{"host", host}, {"kind", cli::lookup_kind_words.at(kind)}, {"source", source}, {"result", result}},
                lookups.counts.at(kind).at(outcome));
        }
    add_histogram(table, {{"host", host}, {"source", "cache"}}, lookups.from_cache);
    add_histogram(table, {{"host", host}, {"source", "sa"}}, lookups.from_sa);
}

void add_host(collection& table, world::host& host, const cli::host_statistics& statistics)
{
    constexpr const char* level_words[] = {"plain", "error", "warning", "info", "debug", "func"};
    table.add("ats_host_up", {{"host", host.name()}}, host.machine().modules.loaded().empty() ? 0 : 1);
    add_ports(table, host);
    add_registrations(table, host);
    host.machine().enter("metrics", [&] {
        add_gsi(table, host);
        add_ibat(table, host);
        add_paths(table, host);
    });
    add_lookups(table, host.name(), statistics.lookups);
    for (size_t level = 0; level < statistics.log_lines.size(); ++level)
        table.add("ats_log_lines_total", {{"host", host.name()}, {"level", level_words[level]}},
                  statistics.log_lines.at(level));
}

void add_door(collection& table, const char* name, const cli::door_statistics& door)
{
    const std::vector<label> labels = {{"door", name}};
    table.add("ats_door_connections", labels, static_cast<double>(door.open.load(std::memory_order_relaxed)));
    table.add("ats_door_connections_total", labels, door.accepted);
    table.add("ats_door_requests_denied_total", labels, door.denied);
    table.add_parts("ats_door_limits_reached_total", labels, "limit",
                    {{"connections", door.connections_reached},
                     {"questions", door.questions_reached},
                     {"line_bytes", door.line_bytes_reached},
                     {"unread_bytes", door.unread_bytes_reached}});
}

} // namespace

std::vector<family> collect(cli::running_hosts& hosts)
{
    collection table;
    table.add("ats_build_info", {{"version", ATS_VERSION}, {"fabric", hosts.is_real() ? "umad" : "embedded"}}, 1);
    table.add("ats_uptime_seconds", {}, static_cast<double>(hosts.uptime().count()));
    for (const auto& host : hosts.all()) add_host(table, *host, hosts.statistics_of(host->machine()));
    add_door(table, "clients", hosts.statistics().clients);
    add_door(table, "librdmacm", hosts.statistics().librdmacm);
    return table.take();
}

} // namespace metrics
