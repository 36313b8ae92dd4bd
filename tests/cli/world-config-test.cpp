// The configuration file of `ats run`. A valid file is read. An invalid one is refused, and the error names the line.
#include "cli/service/start-delay.h"
#include "cli/service/world-config.h"
#include "console/identity.h"
#include "tests/cli/program.h"

#include <fstream>
#include <regex>
#include <sstream>

namespace
{

using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using world::hca_plan;

ats::result<cli::world_config> read_config(const std::string& text)
{
    const scratch_folder folder;
    write_file(folder / "world.toml", text);
    return cli::read_world_config(folder / "world.toml");
}

std::vector<cli::host_config> read(const std::string& text)
{
    return read_config(text).value().hosts;
}

TEST(world_config, hosts_hcas_parameters_and_levels_are_read_and_the_rest_has_defaults)
{
    const auto hosts = read(R"(
[[host]]
name = "store"
address = "10.1.2.3"
trace = 4
log_kib = 64
[[host.hca]]
name = "left"
ports = 2
[[host.hca]]
[host.ats]
ats_attach_ibat = 0
[host.ibat]
ibat_lifetime_seconds = 30

[[host]]
)");
    ASSERT_EQ(hosts.size(), 2u);
    EXPECT_EQ(hosts[0].name, "store");
    EXPECT_EQ(hosts[0].registry.at(0).value, 4);
    EXPECT_EQ(hosts[0].log_bytes, 65536u);
    EXPECT_EQ(hosts[1].log_bytes, kernel::default_log_bytes);
    EXPECT_THAT(hosts[0].hcas, ElementsAre(Field(&hca_plan::name, "left"), Field(&hca_plan::name, "mthca1")));
    EXPECT_THAT(hosts[0].hcas, ElementsAre(Field(&hca_plan::ports, 2), Field(&hca_plan::ports, 1)));
    ASSERT_EQ(hosts[0].modules.size(), 3u); // ibat and ucm come first, because ats needs them when it starts
    EXPECT_EQ(hosts[0].modules[0].name, "ibat");
    EXPECT_EQ(hosts[0].modules[0].parameters, " ibat_lifetime_seconds=30");
    EXPECT_EQ(hosts[0].modules[2].parameters,
              R"(ats_ipaddr_str="10.1.2.3" ats_hostName_str="store" ats_attach_ibat=0)");
    EXPECT_EQ(hosts[1].name, "node2");
    EXPECT_THAT(hosts[1].modules[2].parameters, HasSubstr("10.0.0.2"));
}

TEST(world_config, a_real_fabric_has_this_machine_and_the_hcas_it_names)
{
    const scratch_folder folder;
    write_file(folder / "ats.toml", R"(
[fabric]
kind = "umad"
sa_delete_pkey = "on"
port_interval_ms = 250
capture = "/tmp/all.pcap"
[[host]]
address = "10.1.2.3"
[[host.hca]]
name = "mlx5_1"
)");
    const cli::world_config config = cli::read_world_config(folder / "ats.toml").value();
    EXPECT_TRUE(config.fabric.is_real);
    EXPECT_EQ(config.fabric.capture, "/tmp/all.pcap");
    EXPECT_EQ(config.fabric.ports.sa_delete_p_key, umad::delete_p_key::on);
    EXPECT_EQ(config.fabric.ports.watch_interval_ticks, 250u);
    EXPECT_THAT(config.fabric.ports.hcas, ElementsAre("mlx5_1"));
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    EXPECT_EQ(config.hosts.at(0).name, std::string(name).substr(0, std::string(name).find('.')));
}

TEST(world_config, options_replace_the_name_and_the_address_of_the_only_host)
{
    const scratch_folder folder;
    const auto read_with = [&](const cli::identity_options& identity, const std::string& text) {
        write_file(folder / "ats.toml", text);
        return cli::read_world_config(folder / "ats.toml", identity);
    };
    const cli::identity_options seven = {.name = "seven", .address = "10.0.0.7"};
    for (const char* text : {"[fabric]\nkind = \"umad\"\n[[host]]", "[[host]]\nname = \"a\"\naddress = \"10.0.0.1\""}) {
        const cli::host_config host = read_with(seven, text).value().hosts.at(0);
        EXPECT_EQ(host.modules.back().parameters, R"(ats_ipaddr_str="10.0.0.7" ats_hostName_str="seven")");
        EXPECT_EQ(host.settings.address, "10.0.0.7");
    }
    const auto error_of = [&](const cli::identity_options& identity, const std::string& text) {
        const auto config = read_with(identity, text);
        return config ? "" : config.error().text;
    };
    EXPECT_THAT(error_of({.address = "10.0.0.7"}, "[[host]]\n[[host]]"),
                HasSubstr(":2: --name and --address are for a"));
    EXPECT_THAT(error_of(seven, "[[host]]\naddress = \"10.0.0\""), HasSubstr(":2: '10.0.0' is not an IPv4 address"));
    EXPECT_THAT(error_of({.name = "a/b"}, "[[host]]"), HasSubstr("'a/b' cannot be a host name: give --name"));
    EXPECT_THAT(error_of({.address = "127.0.0.1"}, "[[host]]"), HasSubstr("it is a loopback address"));
}

// In the packaged file most settings are comments. An administrator removes the number sign before the lines that a
// machine needs. This test removes all of them.
TEST(world_config, the_packaged_file_is_accepted_with_every_line_switched_on)
{
    std::ifstream file(ATS_SOURCE_DIR "/dist/ats.toml");
    std::ostringstream packaged;
    packaged << file.rdbuf();
    const std::string all = std::regex_replace(packaged.str(), std::regex("\n# (\\[|[a-z_]+ = )"), "\n$1");
    ASSERT_THAT(all, HasSubstr("\nname = \"mlx5_0\""));
    const ats::result<cli::world_config> config = read_config(all);
    ASSERT_TRUE(config) << config.error().text;
    EXPECT_EQ(config->acm.socket, "/run/ats/ibacm.sock"); // the unit does not let the service write to /run itself
}

TEST(world_config, probable_mistakes_are_accepted_with_a_warning)
{
    const auto config = read_config("[[host]]\naddress = \"10.0.0.2\"\n[[host]]\n[[host]]").value();
    EXPECT_EQ(config.hosts.size(), 3u);
    EXPECT_THAT(config.warnings, ElementsAre(HasSubstr(":3: 'node2' has the same address as 'node1', 10.0.0.2")));

    std::vector<std::string> remarks;
    EXPECT_EQ(console::host_name_for("thirty-bytes-are-what-it-takes.site", remarks), "thirty-bytes-are-what-it-takes");
    EXPECT_THAT(remarks, testing::IsEmpty());
    EXPECT_EQ(console::host_name_for("thirty-bytes-end-in-this-umlaü", remarks), "thirty-bytes-end-in-this-umla");
    EXPECT_THAT(remarks, ElementsAre(HasSubstr("31 bytes, and a record carries 30: it registers as 'thirty-bytes")));
}

TEST(start_delay, is_within_the_spread_and_only_soon_after_the_machine_has_started)
{
    using namespace std::chrono_literals;
    EXPECT_EQ(cli::start_delay(48, 599s, 0), 0ms);
    EXPECT_EQ(cli::start_delay(48, 599s, 48'000), 48'000ms);
    EXPECT_EQ(cli::start_delay(48, 599s, 48'001), 0ms);
    EXPECT_EQ(cli::start_delay(0, 1s, UINT32_MAX), 0ms);
    EXPECT_EQ(cli::start_delay(48, 600s, 48'000), 0ms) << "ten minutes after a power failure, no other machines start";
}

TEST(world_config, errors_are_refused_with_their_line_and_a_remedy)
{
    const struct {
        const char* text;
        const char* complaint;
    } cases[] = {
        {"[[host]]\nnmae = \"x\"",
         ":2: unknown key 'nmae'; valid here are address, ats, hca, ibat, log_kib, name, spread_seconds, trace, ucm, "
         "verify_seconds, verify_skew_percent"},
        {"[[host]]\n\n[[host.hca]]\nport = 1", ":4: unknown key 'port'; valid here are name, ports"},
        {"hosts = 3", ":1: unknown key 'hosts'; valid here are access, acm, fabric, host, limits, metrics"},
        {"[[host]]\nname = 3", ":2: 'name' must be a text in quotation marks"},
        {"[[host]]\nname = \"a/b\"", "'a/b' cannot be a host name: give it a 'name' of 1 to 30 bytes of UTF-8 without"},
        {"[[host]]\nname = \"a\"\n[[host]]\nname = \"a\"", ":3: there are two hosts named 'a'"},
        {"[[host]]\naddress = \"10.0.0\"", ":2: '10.0.0' is not an IPv4 address: write four numbers"},
        {"[[host]]\naddress = \"127.1.2.3\"", ":2: '127.1.2.3' cannot be a host's address: it is a loopback"},
        {"[[host]]\n[host.ats]\nats_ipaddr_str = \"127.1.2.3\"", ":3: give 'address' in the [[host]] table"},
        {"[[host]]\ntrace = 6", ":2: 'trace' must be a whole number from 0 to 5"},
        {"[[host]]\nverify_skew_percent = 101", ":2: 'verify_skew_percent' must be a whole number from 0 to 100"},
        {"[[host]]\nspread_seconds = 61", ":2: 'spread_seconds' must be a whole number from 0 to 60"},
        {"[[host]]\ntrace = \"high\"", ":2: 'trace' must be a whole number from 0 to 5"},
        {"[[host]]\n[[host.hca]]\nports = 3", ":3: 'ports' must be a whole number from 1 to 2"},
        {"[[host]]\nhca = 1", ":2: 'hca' must be written as [[hca]] tables"},
        {"[[host]]\n[[host.hca]]\nname = \"m\"\n[[host.hca]]\nname = \"m\"", ":4: there are two HCAs named 'm'"},
        {"[[host]]\n[[host.hca]]\nname = \"\"", ":3: an HCA's name has 1 to 99 printable characters"},
        {"[[host]]\n[[host.hca]]\nname = \"a\\nb\"", ":3: an HCA's name has 1 to 99"},
        {"[[host]]\nats = 1", ":2: 'ats' must be a table"},
        {"[[host]]\n[host.ats]\nats_attach_ibat = 1.5", ":3: a module parameter is a whole number, or a text"},
        {"[[host]]\n[host.ats]\nx = \"a\\\"b\"", ":3: a module parameter is a whole number, or a text"},
        {"[host]\nname = \"x\"", ":1: 'host' must be written as [[host]] tables"},
        {"[[host]\n", ":1: "},
        {"[fabric]\nkind = \"ib\"\n[[host]]", ":2: 'kind' must be 'embedded' or 'umad'"},
        {"[fabric]\nsa_delete_pkey = \"on\"\n[[host]]", ":2: unknown key 'sa_delete_pkey'"},
        {"[fabric]\nkind = \"umad\"\nsa_delete_pkey = \"yes\"\n[[host]]", ":3: 'sa_delete_pkey' must be 'auto' or"},
        {"[fabric]\nkind = \"umad\"\n[[host]]\nname = \"a\"", ":3: a host on a real fabric needs its 'address'"},
        {"[fabric]\nkind = \"umad\"\n[[host]]\naddress = \"10.0.0.1\"\n[[host]]", ":5: on a real fabric there is one"},
        {"[fabric]\nkind = \"umad\"\n[[host]]\naddress = \"10.0.0.1\"\n[[host.hca]]",
         ":5: an HCA of a real fabric needs"},
        {"", ":1: no [[host]] table"},
        {"[access]\norders = \"nobodies\"", ":2: there is no group 'nobodies': write \"everyone\", \"owner\" or"},
        {"[limits]\nconnections = 0", ":2: "},
        {"[metrics]\nlisten = \"localhost:9783\"", ":2: listen is an IPv4 address and a port"},
        {"[metrics]\nlisten = \"127.0.0.1:65536\"", ":2: listen is an IPv4 address and a port"},
        {"[metrics]\ntextfile = 1", ":2: "},
        {"[acm]\nenabled = true", ":2: unknown key 'enabled'; valid here are serve, socket, timeout_ms"},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.text);
        const ats::result<cli::world_config> config = read_config(each.text);
        ASSERT_FALSE(config);
        EXPECT_THAT(config.error().text, HasSubstr(each.complaint));
        EXPECT_THAT(config.error().text, HasSubstr("world.toml"));
        EXPECT_EQ(config.error().kind, ats::error_kind::invalid);
    }
}

} // namespace
