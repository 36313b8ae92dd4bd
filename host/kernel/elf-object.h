// Reads the file of a shared object (System V ABI, "Object Files"). It reads only the parts that the kernel needs to
// place an image: segments, the dynamic section, symbols and relocations. It accepts only objects for this processor.
#pragma once

#include <cstdint>
#include <cstring>
#include <elf.h>
#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

namespace kernel
{

// All addresses are offsets from the beginning of an image. Returned texts and bytes live as long as the object.
class elf_object
{
  public:
    // Maps the file; the caller still owns the descriptor `file`. Returns null if the file cannot be mapped, is cut
    // short, has no dynamic section, or is not a shared object of 64 bits for this processor.
    static std::unique_ptr<elf_object> read(int file);
    ~elf_object();
    elf_object(const elf_object&) = delete;
    elf_object& operator=(const elf_object&) = delete;

    const std::vector<Elf64_Phdr>& segments() const { return segments_; }

    // Returns the bytes of a segment that are stored in the file. The segment may be larger in memory.
    std::string_view bytes_of(const Elf64_Phdr& segment) const
    {
        return file_bytes(segment.p_offset, segment.p_filesz);
    }

    // Returns the value of the entry DT_... of the dynamic section. Empty if there is no such entry.
    std::optional<uint64_t> dynamic(int64_t tag) const;

    // Returns the names of the libraries that the object needs.
    std::vector<std::string_view> libraries() const;

    // Returns the symbol with this number. Empty if the file has no bytes for it.
    std::optional<Elf64_Sym> symbol(uint64_t number) const;
    std::string_view name_of(const Elf64_Sym& symbol) const;

    // Returns the symbols that this object defines and that other objects can find, or nullopt if the hash table is
    // missing or broken.
    std::optional<std::vector<Elf64_Sym>> exported_symbols() const;

    // Returns the entries of the tables DT_RELA and DT_JMPREL. Returns nullopt if a table is cut short, or if only its
    // address or only its size is given.
    std::optional<std::vector<Elf64_Rela>> relocations() const;

  private:
    elf_object(const char* mapping, size_t size) : mapping_(mapping), size_(size) {}
    bool read_segments();
    bool read_dynamic(const Elf64_Phdr& segment);
    bool read_table(int64_t address_tag, int64_t size_tag, std::vector<Elf64_Rela>& entries) const;

    // Returns `count` bytes of the file from `offset` on. Empty if the file ends earlier.
    std::string_view file_bytes(uint64_t offset, uint64_t count) const;

    // Returns the bytes from an address to the end of its segment. Empty if the file has no bytes for the address.
    std::string_view bytes_at(uint64_t address) const;

    template <class value_t>
    static std::optional<value_t> value_in(std::string_view bytes)
    {
        if (bytes.size() < sizeof(value_t)) return std::nullopt;
        value_t value;
        std::memcpy(&value, bytes.data(), sizeof value);
        return value;
    }

    template <class value_t>
    std::optional<value_t> value_at(uint64_t address) const
    {
        return value_in<value_t>(bytes_at(address));
    }

    // Returns the text at this offset of the string table. Empty if the file has no such text.
    std::string_view text(uint64_t offset) const;

    const char* const mapping_;
    const size_t size_;
    std::vector<Elf64_Phdr> segments_;
    std::map<int64_t, uint64_t> dynamic_;
    std::vector<uint64_t> libraries_; // offsets of the libraries' names in the string table
};

} // namespace kernel
