#include "host/world/module-folder.h"

#include <cstdlib>
#include <filesystem>

namespace world
{

std::string default_module_folder()
{
    if (const char* chosen = std::getenv("ATS_MODULE_DIR"); chosen && *chosen) return chosen;
    std::error_code ignored;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path();
    const std::filesystem::path built = (program / "../modules").lexically_normal();
    const std::filesystem::path installed = (program / ATS_INSTALLED_MODULES).lexically_normal();
    return (std::filesystem::is_directory(installed, ignored) ? installed : built).string();
}

} // namespace world
