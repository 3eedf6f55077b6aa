// LevelDB as a peer; see the header.
#include <leveldb/db.h>
#include <leveldb/write_batch.h>

#include "compare/sorted_peer.h"

namespace k9erepl::bench {

namespace {

struct LevelDb {
    using DB = leveldb::DB;
    using Options = leveldb::Options;
    using ReadOptions = leveldb::ReadOptions;
    using WriteOptions = leveldb::WriteOptions;
    using WriteBatch = leveldb::WriteBatch;
    using Iterator = leveldb::Iterator;
    using Slice = leveldb::Slice;
    static constexpr auto kNoCompression = leveldb::kNoCompression;
    static constexpr const char* kName = "LevelDB";
};

}  // namespace

std::unique_ptr<Peer> MakeLevelDb(const std::string& folder, Durability durability) {
    return std::make_unique<SortedPeer<LevelDb>>(folder, durability);
}

}  // namespace k9erepl::bench
