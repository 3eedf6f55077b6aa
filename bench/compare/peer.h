// Another library beside ours in bench/compare. One source per library implements this interface;
// peers.cpp lists those that were found when the program was built. A failure ends the program.
#ifndef K9EREPL_BENCH_COMPARE_PEER_H
#define K9EREPL_BENCH_COMPARE_PEER_H

#include <memory>
#include <string>
#include <vector>

#include "platform/int_types.h"

namespace k9erepl::bench {

// Receives a record; `data` is valid during the call only.
using PeerVisit = void (*)(i64 rev, const void* data, std::size_t size, i64* sum);

class Peer {
  public:
    virtual ~Peer() = default;
    // Stores `count` records with this data under the revisions from `firstRev` on, in one
    // transaction, each behind all that are stored.
    virtual void Append(i64 firstRev, int count, const std::string& data) = 0;
    // Visits `count` records in ascending order, beginning with that of `fromRev`.
    virtual void Range(i64 fromRev, i64 count, PeerVisit visit, i64* sum) = 0;
};

enum class Durability {
    kSystem,  // a transaction that is complete is with the system
    kDisk,    // it is on the disk
};

struct PeerKind {
    const char* name;
    // Makes an empty store in the folder, which exists.
    std::unique_ptr<Peer> (*make)(const std::string& folder, Durability durability);
};

const std::vector<PeerKind>& Peers();

// Their names one by one, for the line that says what the program was built without.
std::string MissingPeers();

std::unique_ptr<Peer> MakeLmdb(const std::string& folder, Durability durability);
std::unique_ptr<Peer> MakeLevelDb(const std::string& folder, Durability durability);
std::unique_ptr<Peer> MakeRocksDb(const std::string& folder, Durability durability);
std::unique_ptr<Peer> MakeSqlite(const std::string& folder, Durability durability);

}  // namespace k9erepl::bench

#endif  // K9EREPL_BENCH_COMPARE_PEER_H
