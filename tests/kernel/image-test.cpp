// Images of a module. The kernel places an image itself, or the dynamic linker maps it. Tests which files can be
// placed, and that both kinds of images behave in the same way.
#include <algorithm>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include "host/kernel/module-image.h"
#include "host/kernel/placed-image.h"
#include "host/kernel/zeroing.h"
#include "host/world/module-folder.h"
#include "kernel/module.h"
#include "tests/kernel/one-machine.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace
{

const std::string probe_file = world::default_module_folder() + "/probe.so";

// The bytes of a module file, to be changed.
class module_file
{
  public:
    module_file()
    {
        std::ifstream file(probe_file, std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(file), {});
    }

    Elf64_Ehdr& header() { return value_at<Elf64_Ehdr>(0); }

    // Program headers. The file has four of type PT_LOAD, in this order: for its headers, code, constants and
    // variables.
    Elf64_Phdr& segment(Elf64_Word type, size_t number = 0)
    {
        for (size_t i = 0;; ++i) {
            auto& segment = value_at<Elf64_Phdr>(header().e_phoff + i * sizeof(Elf64_Phdr));
            if (segment.p_type == type && number-- == 0) return segment;
        }
    }
    Elf64_Phdr& constants() { return segment(PT_LOAD, 2); }
    Elf64_Phdr& variables() { return segment(PT_LOAD, 3); }
    Elf64_Phdr& spare() { return segment(PT_GNU_STACK); }
    void add_thread_variables(uint64_t alignment)
    {
        Elf64_Phdr& segment = spare();
        segment = {};
        segment.p_type = PT_TLS;
        segment.p_align = alignment;
    }

    Elf64_Dyn& dynamic(Elf64_Sxword tag)
    {
        for (size_t i = 0;; ++i) {
            auto& entry = value_at<Elf64_Dyn>(segment(PT_DYNAMIC).p_offset + i * sizeof(Elf64_Dyn));
            if (entry.d_tag == tag) return entry;
        }
    }
    // A read-only table is at the same offset in the file as in the image, so d_ptr is also its offset in the file.
    Elf64_Rela& relocation(Elf64_Sxword table) { return value_at<Elf64_Rela>(dynamic(table).d_un.d_ptr); }
    Elf64_Sym& symbol(const std::string& name)
    {
        for (size_t i = 1;; ++i) {
            auto& symbol = value_at<Elf64_Sym>(dynamic(DT_SYMTAB).d_un.d_ptr + i * sizeof(Elf64_Sym));
            if (name == bytes.data() + dynamic(DT_STRTAB).d_un.d_ptr + symbol.st_name) return symbol;
        }
    }
    size_t number_of(const Elf64_Sym& symbol)
    {
        return static_cast<size_t>(&symbol - &value_at<Elf64_Sym>(dynamic(DT_SYMTAB).d_un.d_ptr));
    }
    // The first bucket of the hash table of exports. Before the buckets are four words of 32 bits and a filter; the
    // third word is the filter's number of 64-bit words.
    uint32_t& first_bucket()
    {
        const uint64_t table = dynamic(DT_GNU_HASH).d_un.d_ptr;
        return value_at<uint32_t>(table + 16 + uint64_t{value_at<uint32_t>(table + 8)} * 8);
    }
    void rename(const std::string& name, const std::string& new_name)
    {
        const size_t place = bytes.find('\0' + name + '\0');
        ASSERT_NE(place, std::string::npos) << name;
        bytes.replace(place + 1, name.size(), new_name);
    }

    std::unique_ptr<kernel::image_template> read() const
    {
        const int file = memfd_create("module", MFD_CLOEXEC);
        EXPECT_EQ(write(file, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        std::unique_ptr<kernel::image_template> image = kernel::read_image_template(file);
        close(file);
        return image;
    }

    std::string bytes;

  private:
    template <class value_t>
    value_t& value_at(size_t offset)
    {
        if (offset + sizeof(value_t) > bytes.size()) throw std::out_of_range("a value behind the end of the file");
        return *reinterpret_cast<value_t*>(bytes.data() + offset);
    }
};

#ifdef ATS_PLACED_MODULES

// Each change makes a file that only the dynamic linker can map, or that is broken.
TEST(images, of_files_that_need_the_dynamic_linker_are_not_placed)
{
    const std::pair<const char*, void (*)(module_file&)> changes[] = {
        {"empty", [](module_file& file) { file.bytes.clear(); }},
        {"cut in its header", [](module_file& file) { file.bytes.resize(sizeof(Elf64_Ehdr) - 1); }},
        {"cut in its variables",
         [](module_file& file) { file.bytes.resize(file.variables().p_offset + file.variables().p_filesz - 1); }},
        {"no image", [](module_file& file) { file.header().e_ident[0] = 0; }},
        {"of 32 bits", [](module_file& file) { file.header().e_ident[EI_CLASS] = ELFCLASS32; }},
        {"a program", [](module_file& file) { file.header().e_type = ET_EXEC; }},
        {"for another processor", [](module_file& file) { file.header().e_machine = EM_AARCH64; }},
        {"other program headers", [](module_file& file) { file.header().e_phentsize = 32; }},
        {"program headers behind its end", [](module_file& file) { file.header().e_phoff = file.bytes.size(); }},
        {"program headers that wrap", [](module_file& file) { file.header().e_phoff = UINT64_MAX - 7; }},
        {"no dynamic section", [](module_file& file) { file.segment(PT_DYNAMIC).p_type = PT_NULL; }},
        {"an open dynamic section", [](module_file& file) { file.segment(PT_DYNAMIC).p_filesz = 16; }},
        {"relocations in its code", [](module_file& file) { file.dynamic(DT_RELACOUNT).d_tag = DT_TEXTREL; }},
        {"the same as a flag", [](module_file& file) { file.dynamic(DT_FLAGS).d_un.d_val |= DF_TEXTREL; }},
        {"static thread variables", [](module_file& file) { file.dynamic(DT_FLAGS).d_un.d_val |= DF_STATIC_TLS; }},
        {"exports that others replace", [](module_file& file) { file.dynamic(DT_FLAGS).d_un.d_val ^= DF_SYMBOLIC; }},
        {"no flags", [](module_file& file) { file.dynamic(DT_FLAGS).d_tag = DT_DEBUG; }},
        {"other relocations", [](module_file& file) { file.dynamic(DT_RELACOUNT).d_tag = DT_REL; }},
        {"another library", [](module_file& file) { file.rename("libc.so.6", "libx.so.6"); }},
        {"variables twice", [](module_file& file) { file.spare() = file.variables(); }},
        {"fewer bytes than in the file", [](module_file& file) { file.variables().p_memsz = 8; }},
        {"variables that end too far behind",
         [](module_file& file) { file.variables().p_memsz = 2 * kernel::data_distance - file.variables().p_vaddr; }},
        {"constants that lie elsewhere in the file", [](module_file& file) { --file.constants().p_offset; }},
        {"constants with zeros behind", [](module_file& file) { ++file.constants().p_memsz; }},
        {"thread variables at multiples of 64", [](module_file& file) { file.add_thread_variables(64); }},
        {"no table of exports", [](module_file& file) { file.dynamic(DT_GNU_HASH).d_tag = DT_DEBUG; }},
        {"a table of exports behind its end",
         [](module_file& file) { file.dynamic(DT_GNU_HASH).d_un.d_ptr = UINT32_MAX; }},
        {"exports without symbols", [](module_file& file) { file.dynamic(DT_SYMTAB).d_un.d_ptr = UINT64_MAX / 2; }},
        {"an export that is resolved by a call",
         [](module_file& file) { file.symbol("probe_text").st_info = ELF64_ST_INFO(STB_GLOBAL, STT_GNU_IFUNC); }},
        {"a relocation of its code", [](module_file& file) { file.relocation(DT_RELA).r_offset = 0; }},
        {"a relocation over the end of its variables",
         [](module_file& file) {
             file.relocation(DT_RELA).r_offset = file.variables().p_vaddr + file.variables().p_filesz - 7;
         }},
        {"a relocation just before its variables",
         [](module_file& file) { file.relocation(DT_RELA).r_offset = file.variables().p_vaddr - 1; }},
        {"an unknown relocation",
         [](module_file& file) { file.relocation(DT_RELA).r_info = ELF64_R_INFO(0, R_X86_64_COPY); }},
        {"a relocation without its symbol",
         [](module_file& file) { file.relocation(DT_JMPREL).r_info = ELF64_R_INFO(1 << 30, R_X86_64_JUMP_SLOT); }},
        {"a thread variable of another object",
         [](module_file& file) { file.relocation(DT_RELA).r_info = ELF64_R_INFO(1, R_X86_64_DTPMOD64); }},
        {"an absolute symbol", [](module_file& file) { file.symbol("printk").st_shndx = SHN_ABS; }},
        {"a pointer to a thread variable",
         [](module_file& file) { file.symbol("printk").st_info = ELF64_ST_INFO(STB_GLOBAL, STT_TLS); }},
        {"relocations of unknown number", [](module_file& file) { file.dynamic(DT_RELASZ).d_tag = DT_DEBUG; }},
        {"too many relocations", [](module_file& file) { file.dynamic(DT_RELASZ).d_un.d_val = 1 << 30; }},
        {"relocations behind its end", [](module_file& file) { file.dynamic(DT_JMPREL).d_un.d_ptr = UINT32_MAX; }},
        {"an import that nothing has", [](module_file& file) { file.rename("kq_list_hcas", "kq_list_none"); }},
        {"functions to call at the end of the process",
         [](module_file& file) { file.rename("kq_list_hcas", "__cxa_atexit"); }},
    };
    for (const auto& [name, change] : changes) {
        SCOPED_TRACE(name);
        module_file file;
        change(file);
        EXPECT_EQ(file.read(), nullptr);
    }
}

TEST(images, of_a_file_that_needs_no_linker_have_its_parts)
{
    module_file file;
    file.add_thread_variables(16);
    file.rename("kq_list_hcas", "kq_list_none");
    file.symbol("kq_list_none").st_info = ELF64_ST_INFO(STB_WEAK, STT_FUNC); // may be missing
    const Elf64_Sym& own = file.symbol("probe_text");
    Elf64_Rela& pointer = file.relocation(DT_RELA);
    pointer.r_info = ELF64_R_INFO(file.number_of(own), R_X86_64_64);
    pointer.r_addend = 3;
    const std::unique_ptr<kernel::image_template> image = file.read();
    ASSERT_TRUE(image);
    EXPECT_EQ(image->pointers.front().place, pointer.r_offset);
    EXPECT_EQ(image->pointers.front().target, own.st_value + 3);
    EXPECT_EQ(image->data_begin, file.variables().p_vaddr);
    EXPECT_EQ(image->data_end, file.variables().p_vaddr + file.variables().p_memsz);
    EXPECT_EQ(image->unwind_table, file.segment(PT_GNU_EH_FRAME).p_vaddr);
    const Elf64_Phdr& constants = file.constants();
    EXPECT_EQ(image->text.substr(constants.p_vaddr), file.bytes.substr(constants.p_offset, constants.p_filesz));

    EXPECT_EQ(image->exports.size(), 7u);
    const kernel::image_template::symbol record = image->exports.at("this_module");
    EXPECT_TRUE(record.is_object);
    EXPECT_EQ(record.bytes, sizeof(kernel_module_t));
    EXPECT_FALSE(image->exports.at("probe_text").is_object);
    for (const uint64_t inside : {record.begin, record.begin + record.bytes - 1})
        EXPECT_EQ(image->export_at(inside)->first, "this_module");
    for (const uint64_t outside : {record.begin - 1, record.begin + record.bytes})
        EXPECT_EQ(image->export_at(outside), nullptr);

    file.dynamic(DT_JMPREL).d_tag = file.dynamic(DT_PLTRELSZ).d_tag = DT_DEBUG;
    EXPECT_TRUE(file.read()) << "it calls no function of another object";
    file.first_bucket() = 0;
    const std::unique_ptr<kernel::image_template> with_empty_bucket = file.read();
    ASSERT_TRUE(with_empty_bucket);
    EXPECT_LT(with_empty_bucket->exports.size(), 7u);
}

#endif

struct images_of_the_linker : testing::Test, one_machine {
    images_of_the_linker()
    {
        module_file file;
        file.dynamic(DT_FLAGS).d_un.d_val &= ~uint64_t{DF_SYMBOLIC};
        file.dynamic(DT_FLAGS_1).d_un.d_val |= DF_1_NODELETE;
        std::ofstream(path, std::ios::binary) << file.bytes;
    }
    ~images_of_the_linker() { unlink(path.c_str()); }

    const std::string path = testing::TempDir() + "staying-" + std::to_string(getpid()) + ".so";
};

// An image is placed, or mapped by the dynamic linker if its file cannot be placed. Both kinds serve machines equally.
struct images_of_both_kinds : testing::TestWithParam<bool>, one_machine {
    images_of_both_kinds()
    {
        module_file file;
        if (!GetParam()) file.dynamic(DT_FLAGS).d_un.d_val &= ~uint64_t{DF_SYMBOLIC};
        // DT_INIT_ARRAY and DT_FINI_ARRAY already list these functions. As DT_INIT and DT_FINI, they run once more.
        file.dynamic(DT_INIT).d_un.d_ptr = file.symbol("probe_construct").st_value;
        file.dynamic(DT_FINI).d_un.d_ptr = file.symbol("probe_destruct").st_value;
        std::filesystem::create_directories(folder);
        std::ofstream(path, std::ios::binary) << file.bytes;
    }
    ~images_of_both_kinds() { std::filesystem::remove_all(folder); }

    static void* symbol(const kernel::machine& machine, const char* name)
    {
        return machine.modules.symbol("probe", name);
    }

    const std::string folder = testing::TempDir() + "images-" + std::to_string(getpid());
    const std::string path = folder + "/probe.so";
};
INSTANTIATE_TEST_SUITE_P(images, images_of_both_kinds, testing::Bool(),
                         [](const auto& info) { return info.param ? "placed" : "linked"; });

TEST_P(images_of_both_kinds, show_their_places_in_the_same_way)
{
    kernel::machine other(*sim, "node2");
    for (kernel::machine* each : {&host, &other}) ASSERT_TRUE(each->modules.insmod(path, "leak_bytes=33"));
    char* const code = static_cast<char*>(symbol(host, "probe_text"));
    const void* const record = symbol(host, "this_module");
#ifdef ATS_PLACED_MODULES
    EXPECT_EQ(kernel::find_placed_image(code).source != nullptr, GetParam());
    if (GetParam()) {
        EXPECT_EQ(kernel::describe_code(kernel::image_of(code)), "probe.so+0x0");
        for (const kernel::image_part& part : kernel::parts_of_image(code)) {
            const char* const last = static_cast<const char*>(part.begin) + part.bytes - 1;
            EXPECT_EQ(kernel::image_of(last), kernel::image_of(code));
        }
        const auto variables = reinterpret_cast<uintptr_t>(kernel::parts_of_image(code)[1].begin);
        EXPECT_EQ(kernel::image_of(reinterpret_cast<void*>(variables & -kernel::image_page_bytes)),
                  kernel::image_of(code));
        const kernel::image_part text = kernel::parts_of_image(code)[0];
        EXPECT_EQ(kernel::image_of(static_cast<const char*>(text.begin) + text.bytes), nullptr);
    }
#endif
    EXPECT_EQ(kernel::image_of(code), kernel::image_of(record));
    EXPECT_NE(kernel::image_of(code), kernel::image_of(symbol(other, "probe_text")));
    EXPECT_EQ(symbol(host, "printf"), nullptr) << "the C library has this symbol, not the module";
    EXPECT_EQ(kernel::describe_code(code), "probe_text");
    EXPECT_THAT(kernel::describe_code(kernel::image_of(code)), HasSubstr("+0x0"));
    EXPECT_EQ(kernel::describe_code(reinterpret_cast<void*>(8)), "unknown code");

    const auto shown = [](kernel::machine& machine, const char* name) {
        return machine.addresses.nominal(symbol(machine, name)) - kernel::nominal_images;
    };
    for (const char* name : {"probe_text", "this_module"}) {
        EXPECT_TRUE(!GetParam() || shown(host, name) < kernel::image_room) << name;
        EXPECT_EQ(shown(host, name), shown(other, name)) << name;
    }
    EXPECT_EQ(host.addresses.nominal(kernel::image_of(code)), kernel::nominal_images);

    dl_find_object object;
    std::memset(&object, 0xff, sizeof object);
    ASSERT_EQ(_dl_find_object(code, &object), 0);
    EXPECT_GE(static_cast<void*>(code), object.dlfo_map_start);
    EXPECT_LT(static_cast<void*>(code), object.dlfo_map_end);
    EXPECT_NE(object.dlfo_eh_frame, nullptr);
    EXPECT_EQ(object.dlfo_flags, 0u);
    EXPECT_LT(_dl_find_object(nullptr, &object), 0);

    for (kernel::machine* each : {&host, &other}) {
        EXPECT_TRUE(each->modules.rmmod("probe"));
        EXPECT_THAT(each->memory.leaks(), ElementsAre(StartsWith("33 bytes allocated by probe+0x")));
    }
}

TEST_P(images_of_both_kinds, without_a_record_are_refused)
{
    module_file file;
    if (!GetParam()) file.dynamic(DT_FLAGS).d_un.d_val &= ~uint64_t{DF_SYMBOLIC};
    file.symbol("this_module").st_info = ELF64_ST_INFO(STB_GLOBAL, STT_FUNC);
    std::ofstream(path, std::ios::binary) << file.bytes;
    const ats::result<> result = host.modules.insmod(path);
    ASSERT_FALSE(result);
    EXPECT_THAT(result.error().text, HasSubstr("'this_module' has 0 bytes instead of 64"));
}

TEST_P(images_of_both_kinds, begin_and_end_with_their_own_functions_and_leave_no_memory)
{
    static int end_count;
    end_count = 0;
    std::vector<const void*> records;
    for (int i = 1; i <= 3; ++i) {
        ASSERT_TRUE(host.modules.insmod(path));
        using begin_t = int(void (*)());
        EXPECT_EQ(reinterpret_cast<begin_t*>(symbol(host, "probe_begin"))([] { ++end_count; }), 2)
            << "two constructors ran";
        records.push_back(symbol(host, "this_module"));
        EXPECT_TRUE(host.modules.rmmod("probe"));
        EXPECT_EQ(end_count, 2 * i);
        EXPECT_EQ(kernel::image_of(records.back()), nullptr);
    }
#ifdef ATS_PLACED_MODULES
    if (!GetParam()) return;
    EXPECT_THAT(records, testing::Each(records[0])) << "the place is used again";
    const uintptr_t page = reinterpret_cast<uintptr_t>(records[0]) & -kernel::image_page_bytes;
    unsigned char is_resident = 1;
    ASSERT_EQ(mincore(reinterpret_cast<void*>(page), kernel::image_page_bytes, &is_resident), 0);
    EXPECT_EQ(is_resident & 1, 0) << "the variables take no memory now";
#endif
}

#ifdef ATS_PLACED_MODULES
TEST_P(images_of_both_kinds, need_no_standard_input)
{
    const auto load_first_image = [&] {
        close(0); // the memory file of the code gets descriptor 0
        const bool is_loaded = host.modules.insmod(path).has_value();
        const bool is_placed = kernel::find_placed_image(symbol(host, "probe_text")).source != nullptr;
        // No process can change the code through /proc/PID/fd/0.
        const bool is_sealed = fcntl(0, F_GET_SEALS) == (F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE);
        std::_Exit(is_loaded && is_placed == GetParam() && is_sealed == is_placed ? 0 : 1);
    };
    EXPECT_EXIT(load_first_image(), testing::ExitedWithCode(0), "");
    // This first load makes the memory file of the code, which stays open. The second load below then needs a
    // descriptor only to read the module file.
    ASSERT_TRUE(host.modules.insmod(path));
    EXPECT_TRUE(host.modules.rmmod("probe"));
    const int saved = dup(0);
    close(0); // the next descriptor is 0
    ASSERT_TRUE(host.modules.insmod(path));
    EXPECT_EQ(kernel::find_placed_image(symbol(host, "probe_text")).source != nullptr, GetParam());
    EXPECT_TRUE(host.modules.rmmod("probe"));
    EXPECT_LT(fcntl(0, F_GETFD), 0) << "descriptor 0 is closed again";
    dup2(saved, 0);
    close(saved);
}

// For a new load, the dynamic linker would find an image that stayed mapped by its path, with its old variables.
TEST_F(images_of_the_linker, that_stay_mapped_are_not_used_again)
{
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(host.modules.insmod(path));
        run([] {
            auto* count = reinterpret_cast<int (*)()>(const_cast<void*>(inter_module_get("probe_call")));
            EXPECT_EQ(count(), 1);
            inter_module_put("probe_call");
        });
        EXPECT_TRUE(host.modules.rmmod("probe"));
    }
}
#endif

// The loader keeps a descriptor open for every image that the dynamic linker maps. Many machines need more descriptors
// than the soft limit allows, so the loader must raise this limit.
TEST_P(images_of_both_kinds, have_variables_of_their_own)
{
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit low_limit{.rlim_cur = 64, .rlim_max = limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low_limit), 0);
    std::vector<std::unique_ptr<kernel::machine>> machines;
    const auto number_in = [](const kernel::machine& machine) {
        return reinterpret_cast<int (*)()>(symbol(machine, "probe_number"))();
    };
    for (int i = 0; i < 100; ++i) {
        machines.push_back(std::make_unique<kernel::machine>(*sim, "node"));
        const ats::result<> result = machines.back()->modules.insmod(path, "number=" + std::to_string(i));
        ASSERT_TRUE(result) << result.error().text;
    }
    for (int i = 0; i < 100; ++i) EXPECT_EQ(number_in(*machines[static_cast<size_t>(i)]), i);
    for (const auto& each : machines) EXPECT_TRUE(each->modules.rmmod("probe"));
    ASSERT_TRUE(machines.back()->modules.insmod(path));
    EXPECT_EQ(number_in(*machines.back()), 7) << "the default";
    EXPECT_TRUE(machines.back()->modules.rmmod("probe"));
    setrlimit(RLIMIT_NOFILE, &limit);
}

// A kernel call throws an exception when memory is used up. The exception must pass through the module.
TEST_P(images_of_both_kinds, let_an_exception_pass)
{
    ASSERT_TRUE(host.modules.insmod(path));
    using call_back_t = int(void (*)());
    auto* call_back = reinterpret_cast<call_back_t*>(symbol(host, "probe_call_back"));
    EXPECT_THROW(call_back([] { throw std::bad_alloc(); }), std::bad_alloc);
    run([] {
        auto* count = reinterpret_cast<int (*)()>(const_cast<void*>(inter_module_get("probe_call")));
        EXPECT_EQ(count(), 2) << "the module's frame was not unwound";
        inter_module_put("probe_call");
    });
    EXPECT_TRUE(host.modules.rmmod("probe"));
}

// Placed images call set_memory() in place of memset().
TEST(zeroing, clears_exactly_the_given_bytes)
{
    constexpr size_t page = kernel::image_page_bytes;
    struct alignas(page) page_memory {
        char bytes[5 * page];
    };
    auto full = std::make_unique<page_memory>(), sparse = std::make_unique<page_memory>(page_memory{}),
         memory = std::make_unique<page_memory>(), expected = std::make_unique<page_memory>();
    std::ranges::fill(full->bytes, 'x');
    for (const size_t i : {size_t{0}, 2 * page - 1, 3 * page + 1}) sparse->bytes[i] = 'x'; // other pages are zero
    for (const auto* before : {&*full, &*sparse})
        for (const size_t begin : {size_t{0}, size_t{1}, page - 1, page})
            for (const size_t bytes : {page - 1, page, page + 1, 3 * page})
                for (const int value : {0, 1, 7}) {
                    *memory = *expected = *before;
                    std::fill_n(expected->bytes + begin, bytes, static_cast<char>(value));
                    EXPECT_EQ(kernel::set_memory(memory->bytes + begin, value, bytes), memory->bytes + begin);
                    EXPECT_EQ(std::memcmp(&*memory, &*expected, sizeof(page_memory)), 0)
                        << bytes << " bytes from " << begin << " set to " << value;
                }
}

TEST(zeroing, gives_back_pages_of_zeros_and_no_others)
{
    constexpr size_t page = kernel::image_page_bytes;
    void* mapping = mmap(nullptr, 4 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(mapping, MAP_FAILED);
    madvise(mapping, 4 * page, MADV_NOHUGEPAGE);
    char* const bytes = static_cast<char*>(mapping);
    std::memset(bytes, 0, 4 * page);
    bytes[page] = bytes[3 * page - 1] = 'x';
    kernel::give_back_zero_pages(bytes, 4 * page);
    unsigned char residents[4];
    ASSERT_EQ(mincore(bytes, 4 * page, residents), 0);
    for (const size_t i : {0, 1, 2, 3}) EXPECT_EQ(residents[i] & 1, i == 1 || i == 2) << "page " << i;
    EXPECT_EQ(bytes[page], 'x');
    EXPECT_EQ(bytes[3 * page - 1], 'x');
    munmap(mapping, 4 * page);
}

} // namespace
