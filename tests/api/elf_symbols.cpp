// Reads the dynamic symbol table; see the header.
#include "api/elf_symbols.h"

#include <gtest/gtest.h>
#include <link.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

namespace k9erepl::test {
namespace {

using FileHeader = ElfW(Ehdr);
using Section = ElfW(Shdr);
using Symbol = ElfW(Sym);

// The bytes of a file, looked at as structures at offsets.
class Bytes {
  public:
    explicit Bytes(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        m_bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }

    std::size_t Size() const { return m_bytes.size(); }
    template <typename T>
    T At(std::size_t offset) const {
        T value;
        std::memcpy(&value, &m_bytes.at(offset + sizeof(T) - 1) - (sizeof(T) - 1), sizeof(T));
        return value;
    }
    std::string TextAt(std::size_t offset) const { return &m_bytes.at(offset); }

  private:
    std::vector<char> m_bytes;
};

void TakeSymbols(const Bytes& bytes, const Section& table, const Section& names,
                 DynamicSymbols* symbols) {
    for (std::size_t at = 0; at < table.sh_size; at += sizeof(Symbol)) {
        const auto symbol = bytes.At<Symbol>(table.sh_offset + at);
        const std::string name = bytes.TextAt(names.sh_offset + symbol.st_name);
        if (!name.empty()) {
            (symbol.st_shndx == SHN_UNDEF ? symbols->imported : symbols->defined).insert(name);
        }
    }
}

}  // namespace

DynamicSymbols ReadDynamicSymbols(const std::string& path) {
    const Bytes bytes(path);
    DynamicSymbols symbols;
    if (bytes.Size() < sizeof(FileHeader) || !bytes.TextAt(0).starts_with(ELFMAG)) {
        ADD_FAILURE() << "no library: " << path;
        return symbols;
    }
    const auto header = bytes.At<FileHeader>(0);
    const auto section = [&](std::size_t number) {
        return bytes.At<Section>(header.e_shoff + number * header.e_shentsize);
    };
    for (std::size_t i = 0; i < header.e_shnum; ++i) {
        const Section table = section(i);
        if (table.sh_type == SHT_DYNSYM) {
            TakeSymbols(bytes, table, section(table.sh_link), &symbols);
        }
    }
    return symbols;
}

}  // namespace k9erepl::test
