// RocksDB as a peer; see the header.
#include <rocksdb/db.h>
#include <rocksdb/write_batch.h>

#include "compare/sorted_peer.h"

namespace k9erepl::bench {

namespace {

struct RocksDb {
    using DB = rocksdb::DB;
    using Options = rocksdb::Options;
    using ReadOptions = rocksdb::ReadOptions;
    using WriteOptions = rocksdb::WriteOptions;
    using WriteBatch = rocksdb::WriteBatch;
    using Iterator = rocksdb::Iterator;
    using Slice = rocksdb::Slice;
    static constexpr auto kNoCompression = rocksdb::kNoCompression;
    static constexpr const char* kName = "RocksDB";
};

}  // namespace

std::unique_ptr<Peer> MakeRocksDb(const std::string& folder, Durability durability) {
    return std::make_unique<SortedPeer<RocksDb>>(folder, durability);
}

}  // namespace k9erepl::bench
