// A host's end of a real fabric without the host: reads commands from stdin, and writes what it is told to stdout, a
// line each. It uses the first HCA and its first port.
//   set ADDRESS NAME | delete GID [P_KEY] | get ADDRESS | get-gid GID | stray GID | port | counts | tap FILE | quit
#include <arpa/inet.h>

#include <bit>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <mutex>
#include <sstream>

#include "host/fabric/capture.h"
#include "host/fabric/umad/umad.h"
#include "sa-mads.h"

namespace
{

// The halves of the IDs tell whether the upper one finds its way back.
constexpr uint64_t first_transaction = 0xAB54A98C00000001;

std::mutex printing;
void print(const std::string& line)
{
    const std::lock_guard lock(printing);
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

std::string text_of(const wire_gid_t& gid)
{
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(AF_INET6, &gid, text, sizeof text);
}
wire_gid_t gid_of(const std::string& text)
{
    wire_gid_t gid{};
    if (inet_pton(AF_INET6, text.c_str(), &gid) != 1) print("error: " + text + " is no GID");
    return gid;
}
void set_address(ib_service_record_v2_t& record, const std::string& text)
{
    if (inet_pton(AF_INET, text.c_str(), record.service_data8 + 12) != 1) print("error: " + text + " is no address");
}

struct printing_listener final : fabric::listener {
    void mad_arrived(int port, const fabric::address& source, const fabric::mad_bytes& mad) override
    {
        const auto answer = std::bit_cast<sa_mad_v2_t>(mad);
        ib_service_record_v2_t record;
        std::memcpy(&record, answer.payload, sizeof record);
        char line[256], address[INET_ADDRSTRLEN];
        std::snprintf(
            line, sizeof line,
            "arrived on %d from %u method 0x%02X status 0x%04X transaction %llX gid %s p_key 0x%04X address %s", port,
            source.lid, mad[3], from_wire(answer.hdr.u.ns.status.raw16),
            static_cast<unsigned long long>(from_wire(answer.hdr.transact_id)), text_of(record.service_gid).c_str(),
            from_wire(record.service_pkey), inet_ntop(AF_INET, record.service_data8 + 12, address, sizeof address));
        print(line);
    }
    void port_changed(int port, fabric::port_change change, uint16_t new_sm_lid) override
    {
        const std::string number = std::to_string(port);
        if (change == fabric::port_change::link_up) print("up " + number);
        if (change == fabric::port_change::link_down) print("down " + number);
        if (change == fabric::port_change::sm_change) print("sm " + number + " to " + std::to_string(new_sm_lid));
    }
};

class probe
{
  public:
    explicit probe(umad::real_fabric& net) : net_(net), hca_(*net.hcas().front()) { hca_.listen(&listening_); }
    ~probe() { hca_.listen(nullptr); }

    // False: time to quit.
    bool obey(std::istringstream line)
    {
        std::string command, first, second;
        line >> command >> first >> second;
        ib_service_record_v2_t record{};
        record.service_id = to_wire(uint64_t{0x10000CE100415453});
        std::strcpy(record.service_name, "DAPL Address Translation Service");
        if (command == "set") {
            const fabric::port_attributes port = hca_.read_port(1);
            record.service_gid = std::bit_cast<wire_gid_t>(port.gids.at(0));
            record.service_pkey = to_wire(port.p_keys.at(0));
            record.service_lease = to_wire(UINT32_MAX);
            set_address(record, first);
            std::memcpy(record.service_data32, second.data(), std::min(second.size(), sizeof record.service_data32));
            send(MAD_METHOD_SET, UINT64_MAX, record);
        } else if (command == "delete") {
            record.service_gid = gid_of(first);
            record.service_pkey = to_wire(static_cast<uint16_t>(std::strtoul(second.c_str(), nullptr, 0)));
            send(MAD_METHOD_DELETE, 0x43, record);
        } else if (command == "get") {
            set_address(record, first);
            send(MAD_METHOD_GET, 0x7FFFC1, record);
        } else if (command == "get-gid") {
            record.service_gid = gid_of(first);
            send(MAD_METHOD_GET, 0x43, record);
        } else if (command == "port") {
            print_port();
        } else if (command == "counts") {
            print_counts();
        } else if (command == "tap") {
            net_.set_tap(nullptr);
            capture_ = std::make_unique<fabric::capture>(first);
            net_.set_tap(capture_.get());
            print("tapped");
        } else {
            return command != "quit";
        }
        return true;
    }

    void finish()
    {
        net_.set_tap(nullptr);
        if (capture_ && !capture_->close().empty()) print("error: " + capture_->failure());
    }

  private:
    void send(uint8_t method, uint64_t mask, const ib_service_record_v2_t& record)
    {
        const fabric::port_attributes port = hca_.read_port(1);
        sa_mad_v2_t mad{};
        mad.hdr.base_ver = MAD_BASE_VERSION;
        mad.hdr.mgt_class = MAD_CLASS_SUBN_ADM;
        mad.hdr.class_ver = MAD_CLASS_VERSION_SUBN_ADM;
        mad.hdr.m.method = method & 0x7F;
        mad.hdr.transact_id = to_wire(next_transaction_++);
        mad.hdr.attrib_id = std::bit_cast<uint16_t>(to_wire(SA_ATTR_SERVICE_RECORD));
        mad.component_mask = to_wire(mask);
        std::memcpy(mad.payload, &record, sizeof record);
        if (!hca_.send(1, {.lid = port.sm_lid, .sl = port.sm_sl}, std::bit_cast<fabric::mad_bytes>(mad)))
            print("not sent");
    }

    void print_port() const
    {
        const fabric::port_attributes port = hca_.read_port(1);
        char line[256];
        std::snprintf(line, sizeof line, "port state %d lid %u sm %u mtu %u gids %zu first %s p_keys %zu first 0x%04X",
                      static_cast<int>(port.state), port.lid, port.sm_lid, port.mtu, port.gids.size(),
                      port.gids.empty() ? "none" : text_of(std::bit_cast<wire_gid_t>(port.gids[0])).c_str(),
                      port.p_keys.size(), port.p_keys.empty() ? 0 : port.p_keys[0]);
        print(line);
    }

    void print_counts() const
    {
        const umad::traffic_counts now = net_.counts();
        char line[256];
        std::snprintf(line, sizeof line,
                      "counts sent %lu refused %lu arrived %lu timed-out %lu too-short %lu strays %lu completed %lu",
                      now.sent, now.refused, now.arrived, now.timed_out, now.too_short, now.strays,
                      now.deletes_completed);
        print(line);
    }

    umad::real_fabric& net_;
    fabric::hca& hca_;
    printing_listener listening_;
    std::unique_ptr<fabric::capture> capture_;
    uint64_t next_transaction_ = first_transaction;
};

} // namespace

int main(int count, char** arguments)
{
    umad::options wanted{.watch_interval_ticks = 50, .say = [](const std::string& text) { print("said: " + text); }};
    for (int i = 1; i < count; ++i) {
        const std::string argument = arguments[i];
        if (argument == "on")
            wanted.sa_delete_p_key = umad::delete_p_key::on;
        else if (argument == "off")
            wanted.sa_delete_p_key = umad::delete_p_key::off;
        else
            wanted.hcas.push_back(argument);
    }
    const auto exec = kernel::make_threaded_executor();
    const umad::opened opened = umad::open(*exec, wanted);
    if (!opened.fabric) {
        print("cannot open: " + opened.why);
        return 1;
    }
    {
        probe host(*opened.fabric);
        print("ready");
        std::string line;
        while (std::getline(std::cin, line) && host.obey(std::istringstream(line))) continue;
        host.finish();
    }
    return 0;
}
