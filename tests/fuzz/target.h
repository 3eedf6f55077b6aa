// What the fuzz targets share: the function that libFuzzer and the replay call, the reader that
// takes choices off the front of an input, and the way a target says that something is wrong.
#ifndef K9EREPL_TESTS_FUZZ_TARGET_H
#define K9EREPL_TESTS_FUZZ_TARGET_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace k9erepl::fuzz {

// An input that has ended gives zeros for ever.
class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size)
        : m_at(reinterpret_cast<const char*>(data)), m_left(size) {}

    std::size_t Left() const { return m_left; }
    std::uint8_t Byte() {
        const std::string one = Take(1);
        return one.empty() ? std::uint8_t{0} : static_cast<std::uint8_t>(one[0]);
    }
    // Of `size` bytes, the lowest first.
    std::uint64_t Number(std::size_t size) {
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < size; ++i) {
            value |= std::uint64_t{Byte()} << 8 * i;
        }
        return value;
    }
    std::uint32_t Below(std::uint32_t limit) { return Byte() % limit; }
    template <typename T, std::size_t kCount>
    T OneOf(const std::array<T, kCount>& choices) {
        return choices[Byte() % kCount];
    }
    // Fewer at the end.
    std::string Take(std::size_t size) {
        const std::size_t taken = std::min(size, m_left);
        const std::string bytes = taken == 0 ? std::string() : std::string(m_at, taken);
        m_at += taken;
        m_left -= taken;
        return bytes;
    }
    std::string Rest() { return Take(m_left); }

  private:
    const char* m_at;
    std::size_t m_left;
};

// Ends the process, as a crash would, unless `problem` is empty.
inline void Expect(const std::string& problem) {
    if (!problem.empty()) {
        std::fprintf(stderr, "%s\n", problem.c_str());
        std::abort();
    }
}

inline void Expect(bool holds, const std::string& problem) {
    Expect(holds ? "" : problem);
}

}  // namespace k9erepl::fuzz

#endif  // K9EREPL_TESTS_FUZZ_TARGET_H
