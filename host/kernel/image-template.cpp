#include "host/kernel/image-template.h"

#include <algorithm>
#include <cstring>
#include <dlfcn.h>

#include "host/kernel/elf-object.h"
#include "host/kernel/zeroing.h"

namespace kernel
{

namespace
{

bool needs_only_loaded_libraries(const elf_object& object)
{
    return std::ranges::all_of(object.libraries(), [](std::string_view name) {
        void* library = dlopen(std::string(name).c_str(), RTLD_LAZY | RTLD_NOLOAD);
        if (library) dlclose(library);
        return library != nullptr;
    });
}

// Returns true if the dynamic section has an entry that only the dynamic linker can handle. Also returns true if the
// object was not linked with -Bsymbolic: the dynamic linker may then bind a reference to one of the object's own
// symbols to a symbol of another object.
bool needs_dynamic_linker(const elf_object& object)
{
    for (const int64_t tag : {DT_TEXTREL, DT_REL, DT_RELR, DT_PREINIT_ARRAY})
        if (object.dynamic(tag)) return true;
    const uint64_t flags = object.dynamic(DT_FLAGS).value_or(0);
    return (flags & (DF_TEXTREL | DF_STATIC_TLS)) || !(flags & DF_SYMBOLIC);
}

// Makes the template of one object. The functions that return bool return false if no image can be made from the
// object.
class template_maker
{
  public:
    explicit template_maker(const elf_object& object) : object_(object) {}

    std::unique_ptr<image_template> make()
    {
        if (needs_dynamic_linker(object_) || !needs_only_loaded_libraries(object_)) return nullptr;
        take_initialisers();
        return take_segments() && take_exports() && relocate() ? std::move(result_) : nullptr;
    }

  private:
    void take_initialisers()
    {
        const auto value = [this](int64_t tag) { return object_.dynamic(tag).value_or(0); };
        result_->initialisers = {value(DT_INIT), value(DT_INIT_ARRAY), value(DT_INIT_ARRAYSZ) / sizeof(void*)};
        result_->finalisers = {value(DT_FINI), value(DT_FINI_ARRAY), value(DT_FINI_ARRAYSZ) / sizeof(void*)};
    }

    bool take_segments()
    {
        for (const Elf64_Phdr& each : object_.segments()) {
            if (each.p_type == PT_LOAD && !(each.p_flags & PF_W ? take_variables(each) : take_constants(each)))
                return false;
            if (each.p_type == PT_TLS && !take_thread_variables(each)) return false;
            if (each.p_type == PT_GNU_EH_FRAME) result_->unwind_table = each.p_vaddr;
        }
        return !result_->text.empty() && !result_->data.empty();
    }

    // The segment of the variables. It must be the only writable segment. It must lie between the offsets data_distance
    // and twice data_distance.
    bool take_variables(const Elf64_Phdr& segment)
    {
        image_template& image = *result_;
        if (!image.data.empty() || segment.p_memsz < segment.p_filesz) return false;
        image.data = object_.bytes_of(segment);
        image.data_begin = segment.p_vaddr;
        image.data_end = segment.p_vaddr + segment.p_memsz;
        return image.data_begin > data_distance && image.data_end < 2 * data_distance;
    }

    // A segment of code or constants. Its offset in the image must equal its offset in the file, and it must not reach
    // beyond data_distance.
    bool take_constants(const Elf64_Phdr& segment)
    {
        const uint64_t end = segment.p_vaddr + segment.p_memsz;
        if (segment.p_vaddr != segment.p_offset || segment.p_memsz != segment.p_filesz || end > data_distance)
            return false;
        std::string& text = result_->text;
        text.resize(std::max<size_t>(text.size(), end));
        object_.bytes_of(segment).copy(text.data() + segment.p_vaddr, segment.p_filesz);
        return true;
    }

    bool take_thread_variables(const Elf64_Phdr& segment)
    {
        result_->thread_variables = {std::string(object_.bytes_of(segment)), segment.p_memsz};
        return segment.p_align <= __STDCPP_DEFAULT_NEW_ALIGNMENT__;
    }

    bool take_exports()
    {
        const auto symbols = object_.exported_symbols();
        if (!symbols) return false;
        for (const Elf64_Sym& each : *symbols) {
            const unsigned type = ELF64_ST_TYPE(each.st_info);
            if (type == STT_GNU_IFUNC) return false;
            result_->exports[std::string(object_.name_of(each))] = {each.st_value, each.st_size, type == STT_OBJECT};
        }
        return true;
    }

    bool relocate()
    {
        const auto relocations = object_.relocations();
        return relocations &&
               std::ranges::all_of(*relocations, [this](const Elf64_Rela& each) { return relocate(each); });
    }

    // Handles one relocation. A pointer into the image differs from image to image, so each image sets it later. A
    // pointer into the program or a library is the same in all images, so bind() writes it into `data`.
    bool relocate(const Elf64_Rela& entry)
    {
        image_template& image = *result_;
        if (entry.r_offset < image.data_begin ||
            entry.r_offset + sizeof(uint64_t) > image.data_begin + image.data.size())
            return false;
        const auto addend = static_cast<uint64_t>(entry.r_addend);
        const auto symbol = object_.symbol(ELF64_R_SYM(entry.r_info));
        if (!symbol) return false;
        switch (ELF64_R_TYPE(entry.r_info)) {
        case R_X86_64_RELATIVE:
            image.pointers.push_back({entry.r_offset, addend});
            return true;
        case R_X86_64_64:
        case R_X86_64_GLOB_DAT:
        case R_X86_64_JUMP_SLOT:
            if (ELF64_ST_TYPE(symbol->st_info) == STT_TLS || symbol->st_shndx == SHN_ABS) return false;
            if (symbol->st_shndx == SHN_UNDEF) return bind(entry.r_offset, *symbol, addend);
            image.pointers.push_back({entry.r_offset, symbol->st_value + addend});
            return true;
        case R_X86_64_DTPMOD64: // with a symbol, the variable may belong to another image
            image.thread_indexes.push_back(entry.r_offset);
            return ELF64_R_SYM(entry.r_info) == 0;
        default:
            return false;
        }
    }

    // Sets the pointer at `place` to the symbol with the same name in the program or its libraries. A few functions are
    // special, see below.
    bool bind(uint64_t place, const Elf64_Sym& symbol, uint64_t addend)
    {
        const std::string name(object_.name_of(symbol));
        // With these functions, the C library keeps pointers to code of the image, even after the image is gone.
        if (name == "__cxa_atexit" || name == "__cxa_thread_atexit") return false;
        if (name == "__cxa_finalize") return true; // a weak symbol; stays null, because there is nothing to finalise
        void* target = dlsym(RTLD_DEFAULT, name.c_str());
        if (name == "__tls_get_addr") target = reinterpret_cast<void*>(&address_of_thread_variable);
        if (name == "memset") target = reinterpret_cast<void*>(&set_memory);
        if (!target) return ELF64_ST_BIND(symbol.st_info) == STB_WEAK;
        const uint64_t address = reinterpret_cast<uint64_t>(target) + addend;
        std::memcpy(result_->data.data() + (place - result_->data_begin), &address, sizeof address);
        return true;
    }

    const elf_object& object_;
    std::unique_ptr<image_template> result_ = std::make_unique<image_template>();
};

} // namespace

const std::pair<const std::string, image_template::symbol>* image_template::export_at(uint64_t offset) const
{
    for (const auto& entry : exports)
        if (offset >= entry.second.begin && offset - entry.second.begin < entry.second.bytes) return &entry;
    return nullptr;
}

std::unique_ptr<image_template> read_image_template(int file)
{
    const std::unique_ptr<elf_object> object = elf_object::read(file);
    return object ? template_maker(*object).make() : nullptr;
}

} // namespace kernel
