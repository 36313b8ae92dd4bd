#include "host/world/module-folder.h"

#include <cstdlib>
#include <filesystem>

namespace world
{

std::string default_module_folder()
{
    if (const char* folder = std::getenv("ATS_MODULE_DIR"); folder && *folder) return folder;
    std::error_code error;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
    const std::filesystem::path built_folder = (program / "../modules").lexically_normal();
    const std::filesystem::path installed_folder = (program / ATS_INSTALLED_MODULES).lexically_normal();
    return (std::filesystem::is_directory(installed_folder, error) ? installed_folder : built_folder).string();
}

} // namespace world
