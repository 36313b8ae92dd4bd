#include "cli/service/descriptor-store.h"

#include <cstdlib>
#include <fcntl.h>
#include <sstream>

#include "cli/service/service-notice.h"

namespace cli
{

namespace
{

constexpr int first_passed_descriptor = 3; // SD_LISTEN_FDS_START

long number_of(const char* variable)
{
    const char* text = std::getenv(variable);
    return text ? std::strtol(text, nullptr, 10) : 0;
}

} // namespace

std::vector<kept_descriptor> take_kept_descriptors()
{
    std::vector<kept_descriptor> descriptors;
    if (number_of("LISTEN_PID") == getpid()) {
        const char* all_names = std::getenv("LISTEN_FDNAMES");
        std::istringstream names(all_names ? all_names : "");
        for (int i = 0; i < number_of("LISTEN_FDS"); ++i) {
            kept_descriptor next{"", client::descriptor(first_passed_descriptor + i)};
            std::getline(names, next.name, ':');
            fcntl(next.file.get(), F_SETFD, FD_CLOEXEC);
            descriptors.push_back(std::move(next));
        }
    }
    for (const char* variable : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"}) unsetenv(variable);
    return descriptors;
}

bool keep_descriptor(const std::string& name, int file)
{
    return notify_service_manager(("FDSTORE=1\nFDNAME=" + name).c_str(), file);
}

void forget_descriptor(const std::string& name)
{
    notify_service_manager(("FDSTOREREMOVE=1\nFDNAME=" + name).c_str());
}

} // namespace cli
