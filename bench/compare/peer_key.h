// The key under which the peers that sort by bytes store a revision: its 8 bytes, highest first.
#ifndef K9EREPL_BENCH_COMPARE_PEER_KEY_H
#define K9EREPL_BENCH_COMPARE_PEER_KEY_H

#include <array>

#include "platform/int_types.h"

namespace k9erepl::bench {

class PeerKey {
  public:
    explicit PeerKey(i64 rev) {
        for (std::size_t at = 0; at < m_bytes.size(); ++at) {
            m_bytes[at] = static_cast<char>(static_cast<u64>(rev) >> (56 - 8 * at));
        }
    }
    const char* Bytes() const { return m_bytes.data(); }
    std::size_t Size() const { return m_bytes.size(); }

    static i64 RevisionOf(const char* bytes) {
        u64 rev = 0;
        for (int at = 0; at < 8; ++at) {
            rev = rev << 8 | static_cast<u8>(bytes[at]);
        }
        return static_cast<i64>(rev);
    }

  private:
    std::array<char, 8> m_bytes{};
};

}  // namespace k9erepl::bench

#endif  // K9EREPL_BENCH_COMPARE_PEER_KEY_H
