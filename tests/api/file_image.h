// The bytes of a file, looked at as structures at offsets. Used by the readers of dynamic symbols.
#ifndef K9EREPL_TESTS_API_FILE_IMAGE_H
#define K9EREPL_TESTS_API_FILE_IMAGE_H

#include <cstddef>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace k9erepl::test {

// Throws std::out_of_range for bytes behind the end.
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

#endif  // K9EREPL_TESTS_API_FILE_IMAGE_H
