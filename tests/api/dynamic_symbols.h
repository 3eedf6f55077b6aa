// The dynamic symbols of a shared library, read from its file. Used by export_list_test.cpp;
// posix/elf_symbols.cpp and windows/pe_symbols.cpp read what their system's linkers write.
#ifndef K9EREPL_TESTS_API_DYNAMIC_SYMBOLS_H
#define K9EREPL_TESTS_API_DYNAMIC_SYMBOLS_H

#include <cstddef>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace k9erepl::test {

using Names = std::set<std::string>;

struct DynamicSymbols {
    Names defined;
    Names imported;
    // The same by the library that must have them, whose name is in capital letters; "#n" stands
    // for an import by number. Empty for ELF, where any library may have them.
    std::map<std::string, Names> importedFrom;
};

// Empty, and a failure of the running test, for a file that is no library of this machine.
DynamicSymbols ReadDynamicSymbols(const std::string& path);

// The bytes of a file, looked at as structures at offsets. Throws std::out_of_range for bytes
// behind the end.
class FileImage {
  public:
    explicit FileImage(const std::string& path) {
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

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_API_DYNAMIC_SYMBOLS_H
