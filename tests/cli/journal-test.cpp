// The service writes lines for the administrator to systemd's journal. Tests the fields of these lines, the limit of
// their number, and a journal that reads no lines.
#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <latch>
#include <map>
#include <mutex>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>

#include "cli/service/log-copy.h"
#include "console/journal-entry.h"
#include "console/journal.h"
#include "console/line-writer.h"
#include "tests/cli/program.h"

namespace
{

using fields = std::map<std::string, std::string>;

// Takes the place of journald's socket /run/systemd/journal/socket. Each datagram is an entry. Each of its fields is a
// line "NAME=VALUE", or a line "NAME" and then the length and the bytes of the value (systemd's "Native Journal
// Protocol").
class journal_socket
{
  public:
    explicit journal_socket(const std::string& folder) : socket_(socket(AF_UNIX, SOCK_DGRAM, 0))
    {
        std::filesystem::create_directory(folder);
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        std::strncpy(address.sun_path, (folder + "/socket").c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(connect(filler_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    ~journal_socket()
    {
        shutdown(socket_, SHUT_RD);
        if (reader_.joinable()) reader_.join();
        close(socket_);
        close(filler_);
    }

    void start_reading()
    {
        reader_ = std::thread([this] { read(); });
    }

    // Fills the buffer of the socket. Then programs that write to the socket wait until start_reading() is called.
    void fill()
    {
        const std::string entry = "MESSAGE=of another program\n";
        while (send(filler_, entry.data(), entry.size(), MSG_DONTWAIT) > 0) continue;
        EXPECT_EQ(errno, EAGAIN);
    }

    // Waits for an entry whose field `field` contains `value`. Returns the first such entry, and removes it from
    // entries_.
    fields wait_entry(const std::string& field, const std::string& value)
    {
        fields found;
        EXPECT_TRUE(eventually([&] { return take_entry(field, value, found); })) << field << "=" << value;
        return found;
    }

  private:
    void read()
    {
        std::string datagram(1 << 16, '\0');
        ssize_t length = 0;
        while ((length = recv(socket_, datagram.data(), datagram.size(), 0)) > 0) {
            const std::lock_guard lock(mutex_);
            entries_.push_back(parse(datagram.substr(0, static_cast<size_t>(length))));
        }
    }

    bool take_entry(const std::string& field, const std::string& value, fields& found)
    {
        const std::lock_guard lock(mutex_);
        const auto entry =
            std::ranges::find_if(entries_, [&](fields& each) { return each[field].find(value) != std::string::npos; });
        if (entry == entries_.end()) return false;
        found = *entry;
        entries_.erase(entry);
        std::erase_if(found, [](const auto& each) { return each.second.empty(); });
        return true;
    }

    static fields parse(const std::string& datagram)
    {
        fields parsed;
        for (size_t position = 0; position < datagram.size();) {
            const size_t end = datagram.find_first_of("=\n", position);
            const std::string name = datagram.substr(position, end - position);
            uint64_t length = datagram.find('\n', end + 1) - end - 1;
            position = end + 1;
            if (datagram[end] == '\n') {
                std::memcpy(&length, &datagram[position], sizeof length); // little-endian, like this machine
                position += sizeof length;
            }
            parsed[name] = datagram.substr(position, length);
            position += length + 1;
        }
        return parsed;
    }

    const int socket_;
    const int filler_ = socket(AF_UNIX, SOCK_DGRAM, 0);
    std::mutex mutex_; // guards entries_
    std::vector<fields> entries_;
    std::thread reader_;
};

TEST(journal, fields_are_those_that_the_documentation_lists)
{
    using testing::ElementsAre;
    const console::notice full = {.priority = console::priority::debug,
                                  .text = "two\nlines\x1b",
                                  .part = "log",
                                  .host = "node1",
                                  .hca = "mlx5_0",
                                  .port = 2,
                                  .module = "ats",
                                  .trace_level = 0};
    EXPECT_THAT(console::journal_fields(full),
                ElementsAre("MESSAGE=ats: two\nlines\\x1b", "PRIORITY=7", "SYSLOG_IDENTIFIER=ats", "ATS_PART=log",
                            "ATS_HOST=node1", "ATS_HCA=mlx5_0", "ATS_PORT=2", "ATS_MODULE=ats", "ATS_TRACE_LEVEL=0"));
    EXPECT_THAT(console::journal_fields({.text = "plain"}),
                ElementsAre("MESSAGE=ats: plain", "PRIORITY=5", "SYSLOG_IDENTIFIER=ats", "ATS_PART=service"));
    const std::string page = text_of_file(ATS_SOURCE_DIR "/docs/operations.md");
    for (const std::string& field : console::journal_fields(full))
        EXPECT_NE(page.find("| `" + field.substr(0, field.find('=')) + "` |"), std::string::npos) << field;
}

// The arguments that run a shell command in a mount namespace of its own. There `folder` is mounted as the folder of
// the journal's socket.
std::vector<std::string> with_journal(const std::string& folder, const std::string& command)
{
    const std::string mounts = "mount -t tmpfs tmpfs /run && mkdir -p /run/systemd/journal && mount --bind '" + folder +
                               "' /run/systemd/journal && exec ";
    return {"unshare", "--mount", "--map-root-user", "sh", "-c", mounts + command};
}

// Creates `file`, the stderr of a service. Returns the value of JOURNAL_STREAM with which systemd says that this file
// is the journal: the device and the inode of the file.
std::string journal_stream(const std::string& file)
{
    write_file(file, "");
    struct stat status = {};
    EXPECT_EQ(stat(file.c_str(), &status), 0);
    return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

// Starts the program. If `is_journal` is true, JOURNAL_STREAM says that the program's stderr is the journal.
std::unique_ptr<fabric_tools::process> start_ats(const scratch_folder& folder, const std::string& arguments,
                                                 bool is_journal = true)
{
    const std::string stream = journal_stream(folder / "err");
    return std::make_unique<fabric_tools::process>(
        fabric_tools::command{.arguments = with_journal(folder / "journal", ATS_PROGRAM " " + arguments),
                              .environment = {"JOURNAL_STREAM=" + (is_journal ? stream : "1:1")},
                              .output = folder / "out",
                              .errors = folder / "err"});
}

// Returns "" if this user may make mount namespaces, otherwise the reason for the refusal.
std::string refusal_of_mounts(const scratch_folder& folder)
{
    fabric_tools::process trial({.arguments = with_journal(folder / ".", "true"), .output = folder / "trial"});
    return trial.wait_end(std::chrono::minutes(1)) == 0 ? "" : "no mount namespaces: " + text_of_file(folder / "trial");
}

TEST(journal, gets_the_lines_of_the_service_and_of_its_hosts_logs_with_their_fields)
{
    const scratch_folder folder;
    if (const std::string refusal = refusal_of_mounts(folder); !refusal.empty()) GTEST_SKIP() << refusal;
    if (!console::can_send_journal_entries()) GTEST_SKIP() << "no libsystemd";
    journal_socket journal(folder / "journal");
    journal.start_reading();
    const auto expect_entry = [&](const std::string& message, fields others) {
        const fields found = journal.wait_entry("MESSAGE", message);
        others.insert({{"SYSLOG_IDENTIFIER", "ats"}, {"MESSAGE", found.at("MESSAGE")}});
        EXPECT_EQ(found, others);
    };
    const std::string config = folder / "world.toml";
    const std::string metrics = "[metrics]\ntextfile = \"" + (folder / "missing") + "\"\n";
    write_file(config, metrics + "[[host]]\n[[host]]\nname = \"second\"\n");
    const auto ats = start_ats(folder, "run --config '" + config + "' --socket '" + (folder / "socket'"));
    expect_entry("LOGGER: Added key", {{"ATS_PART", "log"}, {"ATS_HOST", "node1"}, {"PRIORITY", "5"}});
    expect_entry("LOGGER: Added key", {{"ATS_PART", "log"}, {"ATS_HOST", "second"}, {"PRIORITY", "5"}});
    expect_entry("ats: the metrics file is not written", {{"ATS_PART", "metrics"}, {"PRIORITY", "4"}});

    write_file(config, metrics + "[[host]]\n[[host]]\nname = \"second\"\ntrace = 4\naddress = \"10.0.0.9\"\n");
    ats->signal(SIGHUP);
    expect_entry("ats: reloaded: second now has", {{"ATS_PART", "reload"}, {"ATS_HOST", "second"}, {"PRIORITY", "5"}});
    expect_entry("ats: DEBUG ", {{"ATS_PART", "log"},
                                 {"ATS_HOST", "second"},
                                 {"ATS_MODULE", "ats"},
                                 {"ATS_TRACE_LEVEL", "4"},
                                 {"PRIORITY", "7"}});
    EXPECT_EQ(text_of_file(folder / "err"), "") << "lines also went to stderr, so the journal has them twice";
    std::filesystem::remove(folder / "journal/socket");
    ats->signal(SIGHUP);
    const auto is_said = [&] {
        return text_of_file(folder / "err").find("<5>ats: reloaded: nothing") != std::string::npos;
    };
    EXPECT_TRUE(eventually(is_said)) << "the journal is gone: " << text_of_file(folder / "err");
    EXPECT_EQ(ats->stop(std::chrono::minutes(1)), 0);
}

TEST(journal, lines_on_stderr_begin_with_their_priority_only_if_stderr_is_the_journal)
{
    const scratch_folder folder;
    if (const std::string refusal = refusal_of_mounts(folder); !refusal.empty()) GTEST_SKIP() << refusal;
    std::filesystem::create_directory(folder / "journal");
    for (const bool is_journal : {true, false}) {
        const auto ats = start_ats(folder, "run --config /dev/null", is_journal);
        EXPECT_EQ(ats->wait_end(std::chrono::minutes(1)), 2);
        EXPECT_THAT(text_of_file(folder / "err"), testing::StartsWith(is_journal ? "<3>ats: " : "ats: "));
    }
}

// A host logs 2500 lines while the journal accepts none. The logging task must not wait for the journal.
TEST(journal, a_flood_of_a_hosts_log_is_limited_and_the_log_keeps_all_lines)
{
    std::latch open_journal(1);
    std::mutex mutex; // guards texts
    std::vector<std::string> texts;
    const auto text_count = [&] {
        const std::lock_guard lock(mutex);
        return texts.size();
    };
    cli::log_copy copy([&](const console::notice& notice) {
        open_journal.wait();
        const std::lock_guard lock(mutex);
        texts.push_back(notice.text);
    });
    kernel::log log;
    copy.follow("node1", log);
    for (int i = 0; i < 2500; ++i) log.append(5000, "line " + std::to_string(i) + "\n");
    open_journal.count_down();
    EXPECT_TRUE(eventually([&] { return text_count() == 1000; }));
    log.append(14'999, "too early\n");
    log.append(15'000, "next\n");
    EXPECT_TRUE(eventually([&] { return text_count() == 1002; }));
    EXPECT_EQ(texts.at(0), "line 0");
    EXPECT_EQ(texts.at(999), "line 999");
    EXPECT_EQ(texts.at(1000), "1501 lines were left out here, beyond 1000 in 10 seconds: 'ats log' has them");
    EXPECT_EQ(texts.at(1001), "next");
    EXPECT_EQ(log.lines().size(), 2502);
}

TEST(journal, a_reader_that_stops_delays_no_writer_and_is_told_how_many_lines_are_missing)
{
    constexpr uint64_t limit = console::line_writer::most_waiting_lines;
    std::latch hang_begin(1), hang_end(1);
    std::vector<uint64_t> written; // the numbers of lines; a remark is 1,000,000 plus the number of lines left out
    {
        console::line_writer writer([&](uint64_t left_out) { written.push_back(1'000'000 + left_out); });
        writer.add([&] {
            hang_begin.count_down();
            hang_end.wait();
        });
        hang_begin.wait();
        for (uint64_t line = 0; line < limit + 3; ++line) writer.add([&, line] { written.push_back(line); });
        EXPECT_FALSE(writer.wait_written(std::chrono::milliseconds(1)));
        EXPECT_FALSE(writer.wait_written(std::chrono::hours(1))) << "waited a second time for a reader that hangs";
        hang_end.count_down();
        EXPECT_TRUE(eventually([&] { return writer.wait_written(std::chrono::hours(1)); }));
        writer.add([&] { written.push_back(limit); });
    }
    std::vector<uint64_t> expected(limit);
    std::ranges::generate(expected, [line = uint64_t{0}]() mutable { return line++; });
    expected.insert(expected.end(), {1'000'003, limit});
    EXPECT_EQ(written, expected);
}

// Expects that the service in this folder answers a client. Then lets the service print another line.
void expect_to_work(const scratch_folder& folder, fabric_tools::process& ats)
{
    const auto answers = [&] { return run_ats({"status", "--socket", folder / "socket"}).exit_code == 0; };
    EXPECT_TRUE(eventually(answers)) << "the service waits until its lines are read";
    ats.signal(SIGHUP);
}

TEST(journal, a_full_one_stops_neither_the_service_nor_its_end)
{
    for (const bool is_read_later : {true, false}) {
        const scratch_folder folder;
        if (const std::string refusal = refusal_of_mounts(folder); !refusal.empty()) GTEST_SKIP() << refusal;
        if (!console::can_send_journal_entries()) GTEST_SKIP() << "no libsystemd";
        journal_socket journal(folder / "journal");
        journal.fill();
        write_file(folder / "world.toml", "[[host]]\ntrace = 5\n");
        const auto ats =
            start_ats(folder, "run --config '" + (folder / "world.toml") + "' --socket '" + (folder / "socket'"));
        expect_to_work(folder, *ats);
        if (is_read_later) {
            journal.start_reading();
            journal.wait_entry("MESSAGE", "ats: reloaded: nothing has changed");
        }
        EXPECT_EQ(ats->stop(std::chrono::minutes(1)), 0);
    }
}

TEST(service, a_full_pipe_at_its_output_stops_neither_the_service_nor_its_end)
{
    for (const bool is_read_later : {true, false}) {
        const scratch_folder folder;
        const std::string path = folder / "pipe";
        ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
        const int pipe = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        while (write(pipe, "x", 1) == 1) continue;
        write_file(folder / "world.toml", "[[host]]\n");
        fabric_tools::process ats(
            {.arguments = {ATS_PROGRAM, "run", "--config", folder / "world.toml", "--socket", folder / "socket"},
             .output = path,
             .errors = path});
        expect_to_work(folder, ats);
        std::string text;
        const auto is_read = [&] {
            char part[1 << 16];
            const ssize_t length = read(pipe, part, sizeof part);
            if (length > 0) text.append(part, static_cast<size_t>(length));
            return text.find("ats: reloaded: nothing has changed") != std::string::npos;
        };
        EXPECT_TRUE(!is_read_later || eventually(is_read)) << text.substr(text.find_last_of('x'));
        EXPECT_EQ(ats.stop(std::chrono::minutes(1)), 0);
        close(pipe);
    }
}

// The limit is 1000 lines in 10 seconds. Any machine prints faster, so the loop below soon reaches the limit.
TEST(journal, a_flood_of_the_services_own_lines_is_limited)
{
    const scratch_folder folder;
    const auto file = [&] { return text_of_file(folder / "err"); };
    const int terminal = dup(STDERR_FILENO);
    const int output = open((folder / "err").c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600);
    dup2(output, STDERR_FILENO);
    constexpr int most_lines = 100'000;
    int lines = 0;
    uintmax_t bytes = 0;
    bool is_left_out = false;
    for (; lines < most_lines && !is_left_out; ++lines) {
        console::print_limited({.text = "of a flood"});
        is_left_out = bytes == std::filesystem::file_size(folder / "err");
        bytes = std::filesystem::file_size(folder / "err");
    }
    dup2(terminal, STDERR_FILENO);
    close(terminal);
    close(output);
    EXPECT_TRUE(is_left_out) << "after " << lines << " lines";
    EXPECT_GT(lines, 1000);
    EXPECT_EQ(file().find("left out"), std::string::npos)
        << "the number of missing lines must come only with the next line";
}

} // namespace
