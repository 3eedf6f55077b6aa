// Filling and reading a peer; see the header.
#include "compare/peer_work.h"

namespace k9erepl::bench {

namespace {

void AddUp(i64 rev, const void* /*data*/, std::size_t size, i64* sum) {
    *sum += rev + static_cast<i64>(size);
}

}  // namespace

FilledPeer::FilledPeer(const std::string& parent, const PeerKind& kind, i64 records)
    : m_file(parent), m_peer(kind.make(m_file.Folder(), Durability::kSystem)) {
    const std::string data(kDataSize, 'x');
    for (i64 rev = 1; rev <= records; rev += kPerTransaction) {
        m_peer->Append(rev, kPerTransaction, data);
    }
}

void FilledPeer::Range(i64 fromRev, i64 count) const {
    i64 sum = 0;
    m_peer->Range(fromRev, count, &AddUp, &sum);
    Require(sum == (2 * fromRev + count - 1) * count / 2 + count * i64{kDataSize},
            "reading every record of a peer");
}

}  // namespace k9erepl::bench
