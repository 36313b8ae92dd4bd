// `ats run` as a service manager meets it.
#include <sys/socket.h>
#include <sys/un.h>

#include "cli/socket/service-origin.h"
#include "cli/socket/socket.h"
#include "client/socket-path.h"
#include "tests/cli/program.h"

namespace
{

// The socket of a service manager. Programs that are started while it exists find it in NOTIFY_SOCKET.
class notice_socket
{
  public:
    explicit notice_socket(const std::string& path) : socket_(socket(AF_UNIX, SOCK_DGRAM, 0))
    {
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
    }
    ~notice_socket()
    {
        unsetenv("NOTIFY_SOCKET");
        close(socket_);
    }

    // "" when there is none yet.
    std::string next()
    {
        char text[64];
        const ssize_t length = recv(socket_, text, sizeof text, MSG_DONTWAIT);
        return {text, length > 0 ? static_cast<size_t>(length) : 0};
    }

  private:
    const int socket_;
};

TEST(service, tells_its_manager_when_it_is_ready_and_when_it_stops)
{
    const scratch_folder folder;
    notice_socket notices(folder / "notify");
    service ats;
    std::string notice;
    EXPECT_TRUE(eventually([&] { return !(notice = notices.next()).empty(); }));
    EXPECT_EQ(notice, "READY=1");
    EXPECT_EQ(ats.ask({"status"}).exit_code, 0) << "it was not ready";
    EXPECT_EQ(notices.next(), "");
    kill(ats.pid(), SIGHUP);
    EXPECT_EQ(ats.stop(), 0) << "two signals at once ended it before its hosts had unloaded";
    EXPECT_EQ(notices.next(), "STOPPING=1");
}

TEST(service, advice_fits_how_it_was_started)
{
    const scratch_folder folder;
    const std::string path = folder / "socket";
    for (const bool by_systemd : {true, false}) {
        setenv("SYSTEMD_EXEC_PID", by_systemd ? std::to_string(getpid()).c_str() : "1", 1);
        const auto listener = cli::listening_socket::open(path, false).value();
        EXPECT_EQ(cli::where_to_look(path).starts_with("'journalctl -u "), by_systemd);
        EXPECT_EQ(cli::how_to_wake(path).starts_with("'systemctl status "), by_systemd);
        EXPECT_EQ(cli::how_to_start(path).starts_with("'systemctl status "), by_systemd);
    }
    unsetenv("SYSTEMD_EXEC_PID");

    setenv("ATS_SOCKET", "", 1);
    EXPECT_THAT(client::own_socket_path(), testing::EndsWith(".sock"));
    unsetenv("ATS_SOCKET");
}

} // namespace
