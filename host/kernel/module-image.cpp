#include "host/kernel/module-image.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/exec/sanitizers.h"
#include "host/kernel/tasks.h"
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

// Returns why it failed, or "".
std::string copy_all(int from, int to)
{
    struct stat attributes;
    if (fstat(from, &attributes) != 0) return std::strerror(errno);
    if (!S_ISREG(attributes.st_mode)) return "it is not a regular file";
    off_t copied = 0;
    while (copied < attributes.st_size) {
        const ssize_t count = sendfile(to, from, &copied, static_cast<size_t>(attributes.st_size - copied));
        if (count < 0) return std::strerror(errno);
        if (count == 0) return "it became shorter while it was read";
    }
    return "";
}

// The same, for the file of that name. A FIFO without a writer must not block: it is opened, seen and refused.
std::string copy_file(const std::string& path, int to)
{
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (file < 0) return std::strerror(errno);
    const std::string failure = copy_all(file, to);
    close(file);
    return failure;
}

// The size of the object that begins at `address`, as its image's symbol table says; 0 when it is no object.
size_t object_size(const void* address)
{
    Dl_info found{};
    void* extra = nullptr;
    if (dladdr1(address, &found, &extra, RTLD_DL_SYMENT) == 0 || !extra || found.dli_saddr != address) return 0;
    const auto* symbol = static_cast<const ElfW(Sym)*>(extra);
    return ELF64_ST_TYPE(symbol->st_info) == STT_OBJECT ? symbol->st_size : 0;
}

std::string path_of(int descriptor)
{
    return "/proc/self/fd/" + std::to_string(descriptor);
}

// clang's address sanitizer counts the guard behind a variable into its size.
bool is_size_of_declaration(size_t bytes)
{
#if defined(__SANITIZE_ADDRESS__) && defined(__clang__)
    return bytes >= sizeof(kernel_module_t);
#else
    return bytes == sizeof(kernel_module_t);
#endif
}

} // namespace

const void* image_of(const void* address)
{
    Dl_info found{};
    return dladdr(address, &found) != 0 ? found.dli_fbase : nullptr;
}

std::string text_of_place(const std::string& image, const void* code, const void* base)
{
    char offset[32];
    std::snprintf(offset, sizeof offset, "+0x%tx", static_cast<const char*>(code) - static_cast<const char*>(base));
    return image + offset;
}

module_code::module_code(std::string module_name, const void* inside)
    : name_(std::move(module_name)), base_(image_of(inside))
{
}

bool module_code::holds(const void* code) const
{
    return base_ && image_of(code) == base_;
}

std::string module_code::place(const void* code) const
{
    return text_of_place(name_, code, base_);
}

image_range range_of_image(const void* address)
{
    dl_find_object found{};
    if (_dl_find_object(const_cast<void*>(address), &found) != 0) return {};
    const auto* begin = static_cast<const char*>(found.dlfo_map_start);
    return {begin, static_cast<size_t>(static_cast<const char*>(found.dlfo_map_end) - begin)};
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
    if (copy_ < 0) throw_shortage("no room for a copy of " + path + " (" + std::strerror(errno) + ")");
    allow_descriptors_beyond(copy_);
    if (const std::string why = copy_file(path, copy_); !why.empty()) {
        throw_if_exhausted();
        return {-EK_NOENT, "no module image at " + path + " (" + why + "): build it or give its path"};
    }

    handle_ = dlopen(path_of(copy_).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle_) {
        throw_if_exhausted();
        const char* why = dlerror();
        return {-EK_INVAL, path + " cannot be mapped: " + (why ? why : "unknown reason")};
    }
    declaration_ = static_cast<kernel_module_t*>(dlsym(handle_, "this_module"));
    if (!declaration_) return {-EK_INVAL, path + " is no kernel module: it does not export 'this_module'"};
    if (const std::string why = misfit(); !why.empty())
        return {-EK_INVAL, path + " does not fit this kernel: " + why + "; build both from the same source"};
    return {};
}

// Why the record is not one that this kernel can use, or "". Looks at each field only when the checks before say that
// it is there.
std::string module_image::misfit() const
{
    if (const size_t size = object_size(declaration_); !is_size_of_declaration(size))
        return "its 'this_module' has " + std::to_string(size) + " bytes instead of " +
               std::to_string(sizeof(kernel_module_t));
    const kernel_module_t& record = *declaration_;
    if (record.record_version != module_record_version)
        return "its 'this_module' has version " + std::to_string(record.record_version) + " instead of " +
               std::to_string(module_record_version);
    if (!holds(record.name)) return "its 'this_module' has no name";
    if (!holds(reinterpret_cast<const void*>(record.init))) return "its 'this_module' has no init function";
    if (!holds(reinterpret_cast<const void*>(record.exit))) return "its 'this_module' has no exit function";
    if (record.parameter_count != 0 && !holds(record.parameters)) return "its 'this_module' has no parameters";
    return "";
}

bool module_image::holds(const void* address) const
{
    return address && image_of(address) == image_of(declaration_);
}

void* module_image::symbol(const std::string& name) const
{
    void* found = dlsym(handle_, name.c_str());
    return holds(found) ? found : nullptr; // not one of the libraries it needs
}

} // namespace kernel
