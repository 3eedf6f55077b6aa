// Reads the export table and the import table of a DLL; see the header.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstddef>

#include "api/dynamic_symbols.h"
#include "platform/int_types.h"
#include "platform/windows/win32.h"

namespace k9erepl::test {
namespace {

using Headers = IMAGE_NT_HEADERS;  // of this machine
using Section = IMAGE_SECTION_HEADER;
using Thunk = IMAGE_THUNK_DATA;

class Dll {
  public:
    explicit Dll(const std::string& path) : m_image(path) {
        if (m_image.Size() >= sizeof(IMAGE_DOS_HEADER)) {
            m_start = static_cast<std::size_t>(m_image.At<IMAGE_DOS_HEADER>(0).e_lfanew);
        }
        m_valid = m_image.Size() >= m_start + sizeof(Headers) &&
                  m_image.At<Headers>(m_start).Signature == IMAGE_NT_SIGNATURE &&
                  Head().OptionalHeader.Magic == IMAGE_NT_OPTIONAL_HDR_MAGIC;
    }

    bool IsValid() const { return m_valid; }

    void TakeExports(DynamicSymbols* symbols) const {
        const u32 table = Directory(IMAGE_DIRECTORY_ENTRY_EXPORT);
        if (table == 0) {
            return;
        }
        const auto exports = Loaded<IMAGE_EXPORT_DIRECTORY>(table);
        // A function without a name would be reached by number.
        EXPECT_EQ(exports.NumberOfFunctions, exports.NumberOfNames);
        for (u32 i = 0; i < exports.NumberOfNames; ++i) {
            const u32 name = Loaded<u32>(exports.AddressOfNames + i * u32{sizeof(u32)});
            symbols->defined.insert(LoadedText(name));
        }
    }

    void TakeImports(DynamicSymbols* symbols) const {
        u32 at = Directory(IMAGE_DIRECTORY_ENTRY_IMPORT);
        for (; at != 0; at += u32{sizeof(IMAGE_IMPORT_DESCRIPTOR)}) {
            const auto library = Loaded<IMAGE_IMPORT_DESCRIPTOR>(at);
            if (library.Name == 0) {
                return;
            }
            const Names names = NamesAt(library.OriginalFirstThunk);
            symbols->imported.insert(names.begin(), names.end());
            symbols->importedFrom[Capitals(LoadedText(library.Name))] = names;
        }
    }

  private:
    Headers Head() const { return m_image.At<Headers>(m_start); }
    u32 Directory(std::size_t number) const {
        return Head().OptionalHeader.DataDirectory[number].VirtualAddress;
    }

    // Where in the file that lies which is loaded at `address`, counted from the first byte.
    std::size_t Offset(u32 address) const {
        const std::size_t sections =
            m_start + offsetof(Headers, OptionalHeader) + Head().FileHeader.SizeOfOptionalHeader;
        for (std::size_t i = 0; i < Head().FileHeader.NumberOfSections; ++i) {
            const auto section = m_image.At<Section>(sections + i * sizeof(Section));
            if (address >= section.VirtualAddress &&
                address - section.VirtualAddress < section.SizeOfRawData) {
                return section.PointerToRawData + (address - section.VirtualAddress);
            }
        }
        return m_image.Size();  // nothing: reading there throws
    }
    template <typename T>
    T Loaded(u32 address) const {
        return m_image.At<T>(Offset(address));
    }
    std::string LoadedText(u32 address) const { return m_image.TextAt(Offset(address)); }

    Names NamesAt(u32 thunks) const {
        Names names;
        for (u32 at = thunks;; at += u32{sizeof(Thunk)}) {
            const auto entry = Loaded<Thunk>(at).u1.Ordinal;
            if (entry == 0) {
                return names;
            }
            const bool byNumber = IMAGE_SNAP_BY_ORDINAL(entry);
            names.insert(byNumber ? "#" + std::to_string(IMAGE_ORDINAL(entry))
                                  : LoadedText(static_cast<u32>(entry) +
                                               u32{offsetof(IMAGE_IMPORT_BY_NAME, Name)}));
        }
    }

    // Windows takes file names so.
    static std::string Capitals(std::string name) {
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
        return name;
    }

    FileImage m_image;
    std::size_t m_start = 0;  // of the headers
    bool m_valid = false;
};

}  // namespace

DynamicSymbols ReadDynamicSymbols(const std::string& path) {
    const Dll dll(path);
    DynamicSymbols symbols;
    if (!dll.IsValid()) {
        ADD_FAILURE() << "no library: " << path;
        return symbols;
    }
    dll.TakeExports(&symbols);
    dll.TakeImports(&symbols);
    return symbols;
}

}  // namespace k9erepl::test
