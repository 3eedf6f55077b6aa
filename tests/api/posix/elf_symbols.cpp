// Reads the dynamic symbol table of an ELF library; see the header.
#include <gtest/gtest.h>
#include <link.h>

#include "api/dynamic_symbols.h"

namespace k9erepl::test {
namespace {

using FileHeader = ElfW(Ehdr);
using Section = ElfW(Shdr);
using Symbol = ElfW(Sym);

void TakeSymbols(const FileImage& image, const Section& table, const Section& names,
                 DynamicSymbols* symbols) {
    for (std::size_t at = 0; at < table.sh_size; at += sizeof(Symbol)) {
        const auto symbol = image.At<Symbol>(table.sh_offset + at);
        const std::string name = image.TextAt(names.sh_offset + symbol.st_name);
        // The name of the binary interface's version is an absolute symbol.
        if (!name.empty() && symbol.st_shndx != SHN_ABS) {
            (symbol.st_shndx == SHN_UNDEF ? symbols->imported : symbols->defined).insert(name);
        }
    }
}

}  // namespace

DynamicSymbols ReadDynamicSymbols(const std::string& path) {
    const FileImage image(path);
    DynamicSymbols symbols;
    if (image.Size() < sizeof(FileHeader) || !image.TextAt(0).starts_with(ELFMAG)) {
        ADD_FAILURE() << "no library: " << path;
        return symbols;
    }
    const auto header = image.At<FileHeader>(0);
    const auto section = [&](std::size_t number) {
        return image.At<Section>(header.e_shoff + number * header.e_shentsize);
    };
    for (std::size_t i = 0; i < header.e_shnum; ++i) {
        const Section table = section(i);
        if (table.sh_type == SHT_DYNSYM) {
            TakeSymbols(image, table, section(table.sh_link), &symbols);
        }
    }
    return symbols;
}

}  // namespace k9erepl::test
