#include "host/kernel/module-image.h"

#include <cassert>
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
#include "host/exec/shortage.h"
#include "host/kernel/placed-image.h"
#include "kernel/module.h"

namespace kernel
{

namespace
{

constexpr rlim_t spare_descriptors = 16; // left for the file, the linker and other threads

// Raises the limit of open descriptors if `descriptor` is close to it. Every image of the dynamic linker keeps one
// descriptor open, so a thousand machines need more descriptors than the default limit allows.
void allow_descriptors_beyond(int descriptor)
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    if (static_cast<rlim_t>(descriptor) + spare_descriptors < limit.rlim_cur) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

ats::result<> copy_file(int source, int copy)
{
    struct stat attributes;
    if (fstat(source, &attributes) != 0) return ats::fail(std::strerror(errno));
    if (!S_ISREG(attributes.st_mode)) return ats::fail("it is not a regular file");
    off_t offset = 0;
    while (offset < attributes.st_size) {
        const ssize_t count = sendfile(copy, source, &offset, static_cast<size_t>(attributes.st_size - offset));
        if (count < 0) return ats::fail(std::strerror(errno));
        if (count == 0) return ats::fail("it became shorter while it was read");
    }
    return {};
}

uint64_t offset_in(const placed_range& image, const void* address)
{
    return static_cast<uint64_t>(static_cast<const char*>(address) - image.begin);
}

// Returns the size of the object at `address`, from the symbol table of its image, or 0 if there is no such object.
size_t object_size(const void* address)
{
    if (const placed_range image = find_placed_image(address); image.source) {
        const auto* entry = image.source->export_at(offset_in(image, address));
        return entry && entry->second.is_object ? entry->second.bytes : 0;
    }
    Dl_info place{};
    void* entry = nullptr;
    if (dladdr1(address, &place, &entry, RTLD_DL_SYMENT) == 0 || !entry || place.dli_saddr != address) return 0;
    const auto* symbol = static_cast<const ElfW(Sym)*>(entry);
    return ELF64_ST_TYPE(symbol->st_info) == STT_OBJECT ? symbol->st_size : 0;
}

std::string path_of(int descriptor)
{
    return "/proc/self/fd/" + std::to_string(descriptor);
}

// Returns true if a symbol of this size can be a kernel_module_t. Clang's address sanitizer adds guard bytes behind
// each variable, and the size of the symbol includes them.
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
    if (const placed_range image = find_placed_image(address); image.source) return image.begin;
    Dl_info place{};
    return dladdr(address, &place) != 0 ? place.dli_fbase : nullptr;
}

std::string describe_code(const void* code)
{
    if (const placed_range image = find_placed_image(code); image.source) {
        const auto* entry = image.source->export_at(offset_in(image, code));
        return entry ? entry->first : text_of_place(image.source->name, code, image.begin);
    }
    Dl_info place{};
    void* entry = nullptr;
    if (dladdr1(code, &place, &entry, RTLD_DL_SYMENT) == 0) return "unknown code";
    // The nearest exported symbol may belong to another function, because most functions are not exported.
    const auto* symbol = static_cast<const ElfW(Sym)*>(entry);
    const bool is_inside =
        symbol && static_cast<const char*>(code) < static_cast<const char*>(place.dli_saddr) + symbol->st_size;
    return is_inside ? place.dli_sname : text_of_place(place.dli_fname, code, place.dli_fbase);
}

std::string text_of_place(const std::string& image, const void* code, const void* base)
{
    char offset[32];
    std::snprintf(offset, sizeof offset, "+0x%tx", static_cast<const char*>(code) - static_cast<const char*>(base));
    return image + offset;
}

module_code::module_code(std::string module_name, const void* address)
    : name_(std::move(module_name)), base_(image_of(address))
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

std::vector<image_part> parts_of_image(const void* address)
{
    if (const placed_range image = find_placed_image(address); image.source) {
        const image_template& source = *image.source;
        return {
            {image.begin, source.text.size(), 0},
            {image.begin + source.data_begin, source.data_end - source.data_begin, source.data_begin - data_distance}};
    }
    dl_find_object object{};
    if (_dl_find_object(const_cast<void*>(address), &object) != 0) return {};
    const auto* begin = static_cast<const char*>(object.dlfo_map_start);
    return {{begin, static_cast<size_t>(static_cast<const char*>(object.dlfo_map_end) - begin), 0}};
}

module_image::module_image() = default;

module_image::~module_image()
{
    bool is_unmapped = true;
    if (handle_) {
        dlclose(handle_);
        if (void* mapped_image = dlopen(path_of(copy_).c_str(), RTLD_LAZY | RTLD_NOLOAD)) {
            dlclose(mapped_image);
            is_unmapped = false; // an image can ask to stay mapped; its path must then never be used again
        }
    }
    if (copy_ >= 0 && is_unmapped) close(copy_);
}

ats::result<> module_image::map(const std::string& path)
{
    assert(!handle_ && !placed_);
    ats::result<std::unique_ptr<placed_image>> image = placed_image::place(path);
    if (!image) return ats::pass_on(image);
    placed_ = std::move(*image);
    if (!placed_)
        if (ats::result<> result = link(path); !result) return result;
    declaration_ =
        static_cast<kernel_module_t*>(placed_ ? placed_->symbol("this_module") : dlsym(handle_, "this_module"));
    if (!declaration_)
        return ats::fail(ats::error_kind::invalid, path + " is not a kernel module: it does not export 'this_module'");
    if (const ats::result<> result = check_declaration(); !result)
        return ats::fail(ats::error_kind::invalid, path + " does not fit this kernel: its 'this_module' has " +
                                                       result.error().text + "; build both from the same source");
    return {};
}

// Lets the dynamic linker map a copy of the file.
ats::result<> module_image::link(const std::string& path)
{
    if (ats::result<> result = copy(path); !result) return result;
    handle_ = dlopen(path_of(copy_).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_) return {};
    if (ats::result<> limits = exec::check_limits(); !limits) return limits;
    const char* reason = dlerror();
    return ats::fail(ats::error_kind::invalid, path + " cannot be mapped: " + (reason ? reason : "unknown reason"));
}

ats::result<> module_image::copy(const std::string& path)
{
    copy_ = memfd_create("module", MFD_CLOEXEC);
    if (copy_ < 0)
        return tl::make_unexpected(
            exec::shortage_error("no room for a copy of " + path + " (" + std::strerror(errno) + ")"));
    allow_descriptors_beyond(copy_);
    // With O_NONBLOCK, open() does not wait for the writer of a FIFO. copy_file() then refuses the FIFO.
    const int source = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    const ats::result<> result = source < 0 ? ats::fail(std::strerror(errno)) : copy_file(source, copy_);
    if (source >= 0) close(source);
    if (result) return {};
    if (ats::result<> limits = exec::check_limits(); !limits) return limits;
    return ats::fail(ats::error_kind::not_found,
                     "no module image at " + path + " (" + result.error().text + "): build it or give its path");
}

// Fails if this kernel cannot use the module's `this_module`. The error says what is wrong with it. Checks its size and
// version first, because another kernel's record may lack the fields that are checked later.
ats::result<> module_image::check_declaration() const
{
    if (const size_t size = object_size(declaration_); !is_size_of_declaration(size))
        return ats::fail(std::to_string(size) + " bytes instead of " + std::to_string(sizeof(kernel_module_t)));
    const kernel_module_t& record = *declaration_;
    if (record.record_version != module_record_version)
        return ats::fail("version " + std::to_string(record.record_version) + " instead of " +
                         std::to_string(module_record_version));
    if (!contains(record.name)) return ats::fail("no name");
    if (!contains(reinterpret_cast<const void*>(record.init))) return ats::fail("no init function");
    if (!contains(reinterpret_cast<const void*>(record.exit))) return ats::fail("no exit function");
    if (record.parameter_count != 0 && !contains(record.parameters)) return ats::fail("no parameters");
    return {};
}

bool module_image::contains(const void* address) const
{
    return address && image_of(address) == image_of(declaration_);
}

void* module_image::symbol(const std::string& name) const
{
    if (placed_) return placed_->symbol(name);
    void* address = dlsym(handle_, name.c_str()); // dlsym() also searches the libraries that the image needs
    return contains(address) ? address : nullptr;
}

} // namespace kernel
