#include "host/kernel/elf-object.h"

#include <sys/mman.h>
#include <sys/stat.h>

namespace kernel
{

namespace
{

#if defined(__x86_64__)
constexpr Elf64_Half processor = EM_X86_64;
#else
constexpr Elf64_Half processor = EM_NONE; // images are placed on x86-64 only
#endif

bool is_shared_object(const Elf64_Ehdr& header)
{
    return std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 && header.e_ident[EI_CLASS] == ELFCLASS64 &&
           header.e_type == ET_DYN && header.e_machine == processor && header.e_phentsize == sizeof(Elf64_Phdr);
}

} // namespace

std::unique_ptr<elf_object> elf_object::read(int file)
{
    struct stat attributes;
    if (fstat(file, &attributes) != 0 || attributes.st_size == 0) return nullptr;
    const auto size = static_cast<size_t>(attributes.st_size);
    void* mapping = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file, 0);
    if (mapping == MAP_FAILED) return nullptr;
    std::unique_ptr<elf_object> object(new elf_object(static_cast<const char*>(mapping), size));
    return object->read_segments() ? std::move(object) : nullptr;
}

elf_object::~elf_object()
{
    munmap(const_cast<char*>(mapping_), size_);
}

bool elf_object::read_segments()
{
    const auto header = value_in<Elf64_Ehdr>({mapping_, size_});
    if (!header || !is_shared_object(*header)) return false;
    for (size_t i = 0; i < header->e_phnum; ++i) {
        const uint64_t offset = header->e_phoff + i * sizeof(Elf64_Phdr);
        const auto segment = value_in<Elf64_Phdr>(file_bytes(offset, sizeof(Elf64_Phdr)));
        if (!segment || bytes_of(*segment).size() != segment->p_filesz) return false;
        segments_.push_back(*segment);
    }
    for (const Elf64_Phdr& each : segments_)
        if (each.p_type == PT_DYNAMIC) return read_dynamic(each);
    return false;
}

bool elf_object::read_dynamic(const Elf64_Phdr& segment)
{
    std::string_view rest = bytes_of(segment);
    for (; const auto entry = value_in<Elf64_Dyn>(rest); rest.remove_prefix(sizeof(Elf64_Dyn))) {
        if (entry->d_tag == DT_NULL) return true;
        if (entry->d_tag == DT_NEEDED)
            libraries_.push_back(entry->d_un.d_val);
        else
            dynamic_[entry->d_tag] = entry->d_un.d_val;
    }
    return false;
}

std::optional<uint64_t> elf_object::dynamic(int64_t tag) const
{
    const auto entry = dynamic_.find(tag);
    return entry != dynamic_.end() ? std::optional(entry->second) : std::nullopt;
}

std::vector<std::string_view> elf_object::libraries() const
{
    std::vector<std::string_view> names;
    for (const uint64_t each : libraries_) names.push_back(text(each));
    return names;
}

std::optional<Elf64_Sym> elf_object::symbol(uint64_t number) const
{
    const auto table = dynamic(DT_SYMTAB);
    return table ? value_at<Elf64_Sym>(*table + number * sizeof(Elf64_Sym)) : std::nullopt;
}

std::string_view elf_object::name_of(const Elf64_Sym& symbol) const
{
    return text(symbol.st_name);
}

// The GNU hash table has four parts: four words of 32 bits, a filter of 64-bit words, buckets, and hashes. A bucket
// holds the number of the first symbol of a chain. Each symbol of a chain has a hash. The lowest bit of the hash is 1
// for the last symbol of the chain.
std::optional<std::vector<Elf64_Sym>> elf_object::exported_symbols() const
{
    const auto table = dynamic(DT_GNU_HASH);
    if (!table) return std::nullopt;
    const auto bucket_count = value_at<uint32_t>(*table), first_hashed = value_at<uint32_t>(*table + 4),
               filter_words = value_at<uint32_t>(*table + 8);
    if (!filter_words) return std::nullopt;
    const uint64_t buckets = *table + 16 + uint64_t{*filter_words} * 8;
    const uint64_t hashes = buckets + uint64_t{*bucket_count} * 4;

    std::vector<Elf64_Sym> symbols;
    for (uint32_t bucket = 0; bucket < *bucket_count; ++bucket) {
        const auto first = value_at<uint32_t>(buckets + uint64_t{bucket} * 4);
        if (!first) return std::nullopt;
        if (*first < *first_hashed) continue; // the bucket is empty
        for (uint32_t number = *first;; ++number) {
            const auto entry = symbol(number);
            const auto hash = value_at<uint32_t>(hashes + uint64_t{number - *first_hashed} * 4);
            if (!entry || !hash) return std::nullopt;
            if (entry->st_shndx != SHN_UNDEF) symbols.push_back(*entry);
            if (*hash & 1) break;
        }
    }
    return symbols;
}

std::optional<std::vector<Elf64_Rela>> elf_object::relocations() const
{
    std::vector<Elf64_Rela> entries;
    if (!read_table(DT_RELA, DT_RELASZ, entries) || !read_table(DT_JMPREL, DT_PLTRELSZ, entries)) return std::nullopt;
    return entries;
}

bool elf_object::read_table(int64_t address_tag, int64_t size_tag, std::vector<Elf64_Rela>& entries) const
{
    const auto address = dynamic(address_tag), size = dynamic(size_tag);
    if (address.has_value() != size.has_value()) return false;
    if (!address) return true; // the object has no such table
    for (uint64_t offset = 0; offset < *size; offset += sizeof(Elf64_Rela)) {
        const auto entry = value_at<Elf64_Rela>(*address + offset);
        if (!entry) return false;
        entries.push_back(*entry);
    }
    return true;
}

std::string_view elf_object::file_bytes(uint64_t offset, uint64_t count) const
{
    return offset <= size_ && count <= size_ - offset ? std::string_view(mapping_ + offset, count) : std::string_view();
}

std::string_view elf_object::bytes_at(uint64_t address) const
{
    for (const Elf64_Phdr& each : segments_)
        if (each.p_type == PT_LOAD && address >= each.p_vaddr && address - each.p_vaddr < each.p_filesz)
            return bytes_of(each).substr(address - each.p_vaddr);
    return {};
}

std::string_view elf_object::text(uint64_t offset) const
{
    const auto table = dynamic(DT_STRTAB);
    const std::string_view bytes = table ? bytes_at(*table + offset) : std::string_view();
    return bytes.substr(0, bytes.find('\0'));
}

} // namespace kernel
