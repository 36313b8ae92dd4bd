#include "tests/ats/ats-world.h"

#include <bit>
#include <regex>

#include "console/host-plans.h"
#include "host/stack/gsi-service.h"
#include "host/stack/registry.h"
#include "host/stack/timers.h"

namespace
{

std::string parameters_of(const host_setup& setup)
{
    return "ats_ipaddr_str=" + setup.address + " ats_hostName_str=\"" + setup.name + "\" " + setup.more_parameters;
}

world::host_plan plan_of(const host_setup& setup)
{
    world::host_plan plan{.name = setup.name,
                          .hcas = {},
                          .registry = {console::trace_setting(setup.trace)},
                          .log_bytes = setup.log_bytes};
    for (size_t i = 0; i < setup.ports.size(); ++i) plan.hcas.push_back({"mthca" + std::to_string(i), setup.ports[i]});
    return plan;
}

// Removes the line end, replaces pointers by PTR, and shortens the prefix of trace lines. A pointer consists of 16
// hexadecimal digits in lower case, and begins with "ffff".
std::string readable(std::string line)
{
    static const std::regex pointer("ffff[0-9a-f]{12}(?![0-9a-f])");
    static const std::regex trace_line(
        "^<6>(?=.{8}: )(ERROR|WARNING|DEBUG|FUNC) *: ATS : ([a-z_]+):\\(ats_([a-z]+)\\.cpp\\):([^]*)");
    if (line.ends_with('\n')) line.pop_back();
    return std::regex_replace(std::regex_replace(line, pointer, "PTR"), trace_line, "$1 $3/$2: $4");
}

// A short name of a port, for example "node1.2", or "node1.mthca1.2" for an HCA other than the host's first.
std::string name_of(const embedded::port_view& port)
{
    const std::string hca = port.hca_name == "mthca0" ? "" : port.hca_name + ".";
    return port.host_name + "." + hca + std::to_string(port.port);
}

} // namespace

void reverse_lookup::answered(ibat_stat_t status, ibat_arp_data_t* record, void* lookup)
{
    auto* self = static_cast<reverse_lookup*>(lookup);
    self->answers.push_back({get_jiffies(), status, record ? record->dst_ip : 0});
    self->order = ++answer_count;
    EXPECT_EQ(exec::current_task()->spin_locks, 0) << "a callback may start the next lookup, which may sleep";
}

std::ostream& operator<<(std::ostream& stream, const reverse_lookup::answer& answer)
{
    return stream << answer.tick << " " << answer.status << " " << world::format_ipv4(answer.ip);
}

ats_host::ats_host(exec::simulation& sim, embedded::subnet& subnet, const host_setup& setup)
    : setup_(setup), sim_(sim), subnet_(subnet), host_(sim, world::add_hcas(subnet, plan_of(setup)).value(),
                                                       plan_of(setup), world::default_module_folder(), host_random_seed)
{
    if (!setup.has_key) machine().get<stack::registry>().remove(console::registry_key);
    peers().publish_ibat();
    if (setup.has_ucm) peers().publish_ucm();
}

ats::result<> ats_host::try_load(const std::string& image)
{
    ats::result<> result = machine().modules.insmod(image, parameters_of(setup_));
    run([] {});
    return result;
}

ats_host& ats_host::load()
{
    EXPECT_TRUE(try_load());
    return *this;
}

void ats_host::unload()
{
    EXPECT_TRUE(machine().modules.rmmod("ats"));
}

void ats_host::link_up(int port, int hca)
{
    EXPECT_TRUE(subnet_.link_up(setup_.name, hca_name(hca), port));
    run([] {});
}

void ats_host::link_down(int port, int hca)
{
    EXPECT_TRUE(subnet_.link_down(setup_.name, hca_name(hca), port));
    run([] {});
}

kq_gid_t ats_host::gid(int port, int hca) const
{
    fabric::hca* hca_of_port = subnet_.find(setup_.name, hca_name(hca)).value();
    return from_wire(std::bit_cast<wire_gid_t>(hca_of_port->read_port(port).gids[0]));
}

void ats_host::run(const std::function<void()>& body)
{
    machine().enter("test", body);
    if (!exec::current_task()) sim_.settle();
}

ibat_stat_t ats_host::reverse(const kq_gid_t& gid, reverse_lookup& lookup)
{
    ibat_stat_t status{};
    run([&] {
        ibat_arp_data_t query{};
        query.gid = gid;
        status = peers().send_rarp(&query, reverse_lookup::answered, &lookup, peers().rarp_context);
    });
    return status;
}

ibat_stat_t ats_host::resolve(const std::string& address)
{
    ibat_stat_t status{};
    run([&] {
        ibat_arp_data_t query{};
        query.dst_ip = ip_of(address);
        status = peers().send_arp(&query, peers().arp_context, 0);
    });
    return status;
}

int ats_host::control(const std::string& command)
{
    int result = 0;
    run([&] { result = machine().proc.write(console::control_file, command); });
    return result;
}

std::string ats_host::read(const std::string& proc_file)
{
    std::string text;
    run([&] { EXPECT_GE(machine().proc.read(proc_file, 0, 65536, &text), 0); });
    return text;
}

void ats_host::trace(int level)
{
    machine().get<stack::registry>().set(console::registry_key, console::trace_level_name, level);
}

std::vector<std::string> ats_host::log()
{
    std::vector<std::string> lines;
    for (const kernel::log_line& line : machine().log.lines_from(next_line_, SIZE_MAX, &next_line_))
        lines.push_back(readable(line.raw()));
    return lines;
}

std::string ats_host::leftovers()
{
    std::string text;
    for (const std::string& leak : machine().memory.leaks()) text += "memory: " + leak + "\n";
    if (const int count = peers().references()) text += std::to_string(count) + " references on peers\n";
    if (machine().modules.is_loaded("ats")) text += "the module is loaded\n";
    for (const stack::gsi_pool_view& pool : machine().get<stack::gsi>().pools()) text += "pool " + pool.name + "\n";
    if (const size_t count = machine().get<stack::timers>().armed()) text += std::to_string(count) + " timers\n";
    for (const char* file : {"version", "control"}) {
        kernel::proc_listing entry;
        if (machine().proc.stat(std::string("dorvex/ats/") + file, &entry) == 0) text += std::string(file) + " file\n";
    }
    for (const std::string& name : machine().inter_modules.names())
        if (name == "ATS_SA_SET_IP_ADDR") text += "its inter-module name\n";
    return text;
}

ats_world::ats_world(const exec::simulation_options& options, embedded::subnet_options subnet_options)
    : sim(exec::make_simulation(options)), subnet(*sim, std::move(subnet_options)), begin_tick_(options.start_tick)
{
    subnet.set_tap(this);
}

ats_host& ats_world::add(const host_setup& setup)
{
    hosts_.push_back(std::make_unique<ats_host>(*sim, subnet, setup));
    return *hosts_.back();
}

ats_host& ats_world::add_registered(const host_setup& setup)
{
    ats_host& host = add(setup).load();
    host.link_up(1);
    raw_requests();
    host.log();
    host.peers().replies.clear();
    return host;
}

void ats_world::crossed(uint64_t now, uint16_t source_lid, const fabric::address& destination,
                        const fabric::mad_bytes& mad)
{
    constexpr size_t method_byte = 3;
    if (!(mad[method_byte] & MAD_METHOD_RESPONSE)) requests_.push_back({now, source_lid, destination, mad});
}

std::vector<wire_request> ats_world::raw_requests()
{
    return std::exchange(requests_, {});
}

std::vector<std::string> ats_world::requests()
{
    std::vector<std::string> texts;
    for (const wire_request& each : raw_requests()) texts.push_back(describe(each));
    return texts;
}

std::string ats_world::describe(const wire_request& request) const
{
    const auto mad = std::bit_cast<sa_mad_v2_t>(request.mad);
    const test::record_t record = test::record_in(mad);
    const embedded::service_record_view view = embedded::view_of(record);
    const std::string gid = port_name(view.gid);
    std::string text = std::to_string(request.tick - begin_tick_) + " " + port_name(request.source_lid);
    switch (test::method_of(mad)) {
    case MAD_METHOD_SET:
        return text + " SET " + gid + " " + view.ipv4 + " " + view.host_name;
    case MAD_METHOD_DELETE:
        return text + " DELETE " + gid;
    case MAD_METHOD_GET:
        return text + " GET " + (from_wire(mad.component_mask) == test::mask_gid_lookup ? gid : view.ipv4);
    default:
        return text + " method " + std::to_string(test::method_of(mad));
    }
}

std::string ats_world::port_name(uint16_t lid) const
{
    // Do not call port_name() from crossed(), where the subnet holds its lock.
    for (const embedded::port_view& port : subnet.ports())
        if (port.lid == lid) return name_of(port);
    return "LID " + std::to_string(lid);
}

std::string ats_world::port_name(const std::string& gid) const
{
    if (gid == embedded::text_of(fabric::gid_bytes{})) return "none";
    for (const embedded::port_view& port : subnet.ports())
        if (port.gid == gid) return name_of(port);
    return gid;
}

std::vector<std::string> ats_world::records() const
{
    std::vector<std::string> texts;
    for (const embedded::service_record_view& record : subnet.service_records())
        texts.push_back(port_name(record.gid) + " " + record.ipv4 + " " + record.host_name);
    return texts;
}

void ats_world::inject(const ats_host& host, int port, const fabric::mad_bytes& mad)
{
    if (!stranger_) {
        stranger_ = subnet.add_hca("stranger", "hca", 1).value();
        EXPECT_TRUE(subnet.link_up("stranger", "hca", 1));
    }
    const std::vector<embedded::port_view> ports = subnet.ports();
    const auto port_view = std::ranges::find(ports, host.name() + "." + std::to_string(port), name_of);
    ASSERT_NE(port_view, ports.end());
    EXPECT_TRUE(stranger_->send(1, {.lid = port_view->lid}, mad));
    sim->settle();
}

fabric::mad_bytes sa_reply(const kq_gid_t& gid, const std::string& address, uint16_t status, uint8_t method,
                           uint16_t attribute)
{
    test::record_t record{};
    record.service_gid = to_wire(gid);
    const uint32_t ip = ip_of(address);
    memcpy(record.service_data8 + 12, &ip, sizeof ip);
    sa_mad_v2_t mad = test::request(method, 0, record);
    mad.hdr.m.r = 1;
    mad.hdr.u.ns.status.raw16 = to_wire(status);
    mad.hdr.attrib_id = std::bit_cast<uint16_t>(to_wire(attribute));
    return test::bytes_of(mad);
}

uint32_t ip_of(const std::string& address)
{
    return world::parse_ipv4(address).value();
}
