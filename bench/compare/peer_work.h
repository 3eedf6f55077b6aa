// A peer that holds as many records as the storage beside it, for the rows of bench/compare that
// read.
#ifndef K9EREPL_BENCH_COMPARE_PEER_WORK_H
#define K9EREPL_BENCH_COMPARE_PEER_WORK_H

#include <memory>
#include <string>

#include "bench_storage.h"
#include "compare/peer.h"

namespace k9erepl::bench {

class FilledPeer {
  public:
    // Holds `records` records of kDataSize bytes with revisions from 1 on.
    FilledPeer(const std::string& parent, const PeerKind& kind, i64 records);

    // Reads the records and requires that they are there.
    void Range(i64 fromRev, i64 count) const;

  private:
    const BenchFile m_file;
    const std::unique_ptr<Peer> m_peer;
};

}  // namespace k9erepl::bench

#endif  // K9EREPL_BENCH_COMPARE_PEER_WORK_H
