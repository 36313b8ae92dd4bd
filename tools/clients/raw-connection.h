// A client's connection to a service. It sends exactly the bytes that a test chooses.
#pragma once

#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

class raw_connection
{
  public:
    static constexpr const char* hello = R"({"request":"hello","protocol":1})";

    // Connects. If `greets` is true, also sends the hello and reads the answer. If the service cannot be reached,
    // is_open() returns false.
    explicit raw_connection(const std::string& path, bool greets = true)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        constexpr timeval timeout{60, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
        is_open_ = connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        if (is_open_ && greets) ask(hello);
    }
    ~raw_connection() { close(fd_); }
    raw_connection(const raw_connection&) = delete;
    raw_connection& operator=(const raw_connection&) = delete;

    bool is_open() const { return is_open_; }
    int fd() const { return fd_; }

    void write(const std::string& bytes) const { send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }

    // Returns the next line without its line feed. Returns "(hung up)" if the service closes the connection or sends
    // nothing for 60 s.
    std::string read()
    {
        size_t end = 0;
        while ((end = input_.find('\n')) == std::string::npos) {
            char bytes[4096];
            const ssize_t size = recv(fd_, bytes, sizeof bytes, 0);
            if (size <= 0) return "(hung up)";
            input_.append(bytes, static_cast<size_t>(size));
        }
        const std::string line = input_.substr(0, end);
        input_.erase(0, end + 1);
        return line;
    }

    // Sends a line, and returns the next line from the service.
    std::string ask(const std::string& line)
    {
        write(line + "\n");
        return read();
    }

  private:
    const int fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool is_open_ = false;
    std::string input_;
};
