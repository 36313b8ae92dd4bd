#include "host/kernel/module-image.h"

#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kernel/errno.h"
#include "kernel/module.h"

namespace kernel
{

namespace
{

constexpr rlim_t spare_descriptors = 16; // for the file, for the linker, and for others meanwhile

// Every image keeps a descriptor: a thousand machines need more of them than a process may open at first.
void allow_descriptors_beyond(int descriptor)
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    if (static_cast<rlim_t>(descriptor) + spare_descriptors < limit.rlim_cur) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

bool copy_all(int from, int to)
{
    struct stat attributes;
    if (fstat(from, &attributes) != 0) return false;
    off_t copied = 0;
    while (copied < attributes.st_size)
        if (sendfile(to, from, &copied, static_cast<size_t>(attributes.st_size - copied)) <= 0) return false;
    return true;
}

std::string path_of(int descriptor)
{
    return "/proc/self/fd/" + std::to_string(descriptor);
}

} // namespace

const void* image_of(const void* address)
{
    Dl_info found{};
    return dladdr(address, &found) != 0 ? found.dli_fbase : nullptr;
}

module_image::~module_image()
{
    bool is_unmapped = true;
    if (handle_) {
        dlclose(handle_);
        if (void* still_mapped = dlopen(path_of(copy_).c_str(), RTLD_LAZY | RTLD_NOLOAD)) {
            dlclose(still_mapped);
            is_unmapped = false; // as some images ask for; then no other copy may ever have this one's path
        }
    }
    if (copy_ >= 0 && is_unmapped) close(copy_);
}

module_image::failure module_image::map(const std::string& path)
{
    copy_ = memfd_create("module", MFD_CLOEXEC);
    if (copy_ < 0) return {-EK_NOMEM, "no room for a copy of " + path + " (" + std::strerror(errno) + ")"};
    allow_descriptors_beyond(copy_);
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const bool is_copied = file >= 0 && copy_all(file, copy_);
    const int error = errno;
    if (file >= 0) close(file);
    if (!is_copied)
        return {-EK_NOENT, "no module image at " + path + " (" + std::strerror(error) + "): build it or give its path"};

    handle_ = dlopen(path_of(copy_).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle_) {
        const char* why = dlerror();
        return {-EK_INVAL, path + " cannot be mapped: " + (why ? why : "unknown reason")};
    }
    declaration_ = static_cast<kernel_module_t*>(dlsym(handle_, "this_module"));
    if (!declaration_) return {-EK_INVAL, path + " is no kernel module: it does not export 'this_module'"};
    return {};
}

void* module_image::symbol(const std::string& name) const
{
    void* found = dlsym(handle_, name.c_str());
    return found && image_of(found) == image_of(declaration_) ? found : nullptr; // not one of the libraries it needs
}

} // namespace kernel
