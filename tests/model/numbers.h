// Fixed widths and seeded numbers for the model-based test. The model shares nothing with the
// library but its public interface, not even these.
#ifndef K9EREPL_TESTS_MODEL_NUMBERS_H
#define K9EREPL_TESTS_MODEL_NUMBERS_H

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <limits>

namespace k9erepl::model {

using u8 = std::uint8_t;
using u32 = std::uint32_t;
using u64 = std::uint64_t;
using i64 = std::int64_t;

constexpr i64 kLowestRev = std::numeric_limits<i64>::min();
constexpr i64 kHighestRev = std::numeric_limits<i64>::max();

// a + b, held at the limits.
inline i64 AddHeld(i64 a, i64 b) {
    if (b > 0 && a > kHighestRev - b) {
        return kHighestRev;
    }
    return b < 0 && a < kLowestRev - b ? kLowestRev : a + b;
}

// A generator whose values depend on nothing but the seed.
class Random {
  public:
    explicit Random(u64 seed) : m_state(seed) {}

    u64 Next() {
        m_state += 0x9E3779B97F4A7C15ULL;
        u64 mixed = m_state;
        mixed = (mixed ^ mixed >> 30U) * 0xBF58476D1CE4E5B9ULL;
        mixed = (mixed ^ mixed >> 27U) * 0x94D049BB133111EBULL;
        return mixed ^ mixed >> 31U;
    }
    // 0 to limit - 1. REQUIRES: limit > 0.
    u32 Below(u32 limit) {
        assert(limit > 0);
        return static_cast<u32>(Next() % limit);
    }
    bool OneIn(u32 count) { return Below(count) == 0; }
    template <typename T>
    T OneOf(std::initializer_list<T> choices) {
        return AnyOf(choices);
    }
    // REQUIRES: there is one.
    template <typename Choices>
    auto AnyOf(const Choices& choices) {
        return *std::next(std::begin(choices), Below(static_cast<u32>(std::size(choices))));
    }

  private:
    u64 m_state;
};

}  // namespace k9erepl::model

#endif  // K9EREPL_TESTS_MODEL_NUMBERS_H
