#include "host/kernel/placed-image.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <vector>

#include "host/exec/shortage.h"
#include "host/kernel/image-area.h"

namespace kernel
{

namespace
{

// A module file that can be placed, and the areas that hold its images.
struct stored_module {
    std::unique_ptr<shared_code> code;
    std::vector<image_area*> areas;
};

struct module_store {
    // Device, inode, size, and time of the last change (seconds, nanoseconds). A changed file normally has another key.
    using key = std::tuple<dev_t, ino_t, off_t, int64_t, int64_t>;

    std::mutex mutex; // guards `modules`, and the slots of all areas
    std::map<key, stored_module> modules;
};

// The store is never destroyed, because images may exist until the process ends.
module_store& store()
{
    static auto& instance = *new module_store;
    return instance;
}

// Reads a module file. Returns null if the file cannot be placed.
std::unique_ptr<shared_code> read_module(int file, const std::string& name)
{
    std::unique_ptr<image_template> source = read_image_template(file);
    if (!source) return nullptr;
    source->name = name;
    auto code = std::make_unique<shared_code>(std::move(source));
    return code->slots() > 0 ? std::move(code) : nullptr;
}

// The callers of the next three functions hold the store's mutex.

// Returns the stored module of an open file. If there is none, reads the file and stores the module. Returns null if
// the file cannot be placed.
stored_module* module_of(int file, const std::string& name)
{
    struct stat attributes;
    if (fstat(file, &attributes) != 0 || !S_ISREG(attributes.st_mode)) return nullptr;
    const timespec& change_time = attributes.st_mtim;
    const module_store::key key{attributes.st_dev, attributes.st_ino, attributes.st_size, change_time.tv_sec,
                                change_time.tv_nsec};
    if (const auto entry = store().modules.find(key); entry != store().modules.end()) return &entry->second;
    std::unique_ptr<shared_code> code = read_module(file, name);
    return code ? &store().modules.emplace(key, stored_module{std::move(code), {}}).first->second : nullptr;
}

ats::result<stored_module*> find_module(const std::string& path)
{
    // With O_NONBLOCK, open() does not wait for the writer of a FIFO.
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (file < 0) {
        if (ats::result<> limits = exec::check_limits(); !limits) return ats::pass_on(limits);
        return nullptr;
    }
    stored_module* module = module_of(file, path.substr(path.rfind('/') + 1));
    close(file);
    return module;
}

ats::result<image_area*> area_with_room(stored_module& module)
{
    // The newest area is the most likely to have room.
    const auto position =
        std::find_if(module.areas.rbegin(), module.areas.rend(), [](auto* each) { return each->has_room(); });
    if (position != module.areas.rend()) return *position;
    if (const ats::result<> result = module.code->prepare(); !result) return ats::pass_on(result);
    ats::result<image_area*> area = image_area::make(*module.code);
    if (area) module.areas.push_back(*area);
    return area;
}

} // namespace

placed_range find_placed_image(const void* address)
{
    const image_area* area = find_area(address);
    char* begin = area ? area->find(static_cast<const char*>(address)) : nullptr;
    return begin ? placed_range{&area->source(), begin} : placed_range{};
}

ats::result<std::unique_ptr<placed_image>> placed_image::place(const std::string& path)
{
    static const bool is_switched_off = std::getenv("ATS_DLOPEN_MODULES") != nullptr;
    if (is_switched_off) return nullptr;
    std::unique_lock lock(store().mutex);
    const ats::result<stored_module*> module = find_module(path);
    if (!module) return ats::pass_on(module);
    if (!*module) return nullptr;
    const ats::result<image_area*> area = area_with_room(**module);
    if (!area) return ats::pass_on(area);
    const ats::result<size_t> slot = (*area)->take();
    if (!slot) return ats::pass_on(slot);
    lock.unlock();
    std::unique_ptr<placed_image> image(new placed_image(**area, *slot));
    image->initialise(); // without the lock, because initialisers may call the kernel
    return image;
}

placed_image::placed_image(image_area& area, size_t slot)
    : area_(area), slot_(slot), source_(area.source()), begin_(area.slot_begin(slot)),
      thread_variables_(source_.thread_variables)
{
}

placed_image::~placed_image()
{
    using function = void();
    const image_template::function_list& finalisers = source_.finalisers;
    for (size_t i = finalisers.array_size; i-- > 0;) reinterpret_cast<function**>(begin_ + finalisers.array)[i]();
    if (finalisers.first != 0) reinterpret_cast<function*>(begin_ + finalisers.first)();
    const std::lock_guard lock(store().mutex);
    area_.put(slot_);
}

void placed_image::initialise()
{
    std::memcpy(begin_ + source_.data_begin, source_.data.data(), source_.data.size());
    for (const image_template::pointer& each : source_.pointers) {
        char* target = begin_ + each.target;
        std::memcpy(begin_ + each.place, &target, sizeof target);
    }
    for (const uint64_t place : source_.thread_indexes) {
        void* own = &thread_variables_;
        std::memcpy(begin_ + place, &own, sizeof own);
    }
    using function = void(int, char**, char**);
    const image_template::function_list& initialisers = source_.initialisers;
    if (initialisers.first != 0) reinterpret_cast<function*>(begin_ + initialisers.first)(0, nullptr, environ);
    for (size_t i = 0; i < initialisers.array_size; ++i)
        reinterpret_cast<function**>(begin_ + initialisers.array)[i](0, nullptr, environ);
    area_.give_back_zero_pages(slot_); // memcpy() and the initialisers may have written only zeros to a page
}

void* placed_image::symbol(const std::string& name) const
{
    const auto entry = source_.exports.find(name);
    return entry != source_.exports.end() ? begin_ + entry->second.begin : nullptr;
}

} // namespace kernel
