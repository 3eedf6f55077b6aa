// RocksDB as a peer: one batch of writes a transaction, without compression, as our storages have
// none.
#include <rocksdb/db.h>
#include <rocksdb/write_batch.h>

#include "bench_storage.h"
#include "compare/peer.h"
#include "compare/peer_key.h"

namespace k9erepl::bench {

namespace {

class RocksDbPeer : public Peer {
  public:
    RocksDbPeer(const std::string& folder, Durability durability) {
        rocksdb::Options options;
        options.create_if_missing = true;
        options.compression = rocksdb::kNoCompression;
        rocksdb::DB* opened = nullptr;
        Require(rocksdb::DB::Open(options, folder + "/store", &opened).ok(), "RocksDB: opening");
        m_records.reset(opened);
        m_writing.sync = durability == Durability::kDisk;
    }

    void Append(i64 firstRev, int count, const std::string& data) override {
        m_batch.Clear();
        for (i64 rev = firstRev; rev < firstRev + count; ++rev) {
            const PeerKey key(rev);
            m_batch.Put(rocksdb::Slice(key.Bytes(), key.Size()), data);
        }
        Require(m_records->Write(m_writing, &m_batch).ok(), "RocksDB: appending");
    }

    void Range(i64 fromRev, i64 count, PeerVisit visit, i64* sum) override {
        const std::unique_ptr<rocksdb::Iterator> at(m_records->NewIterator(rocksdb::ReadOptions()));
        const PeerKey first(fromRev);
        at->Seek(rocksdb::Slice(first.Bytes(), first.Size()));
        for (i64 left = count; left > 0; --left) {
            Require(at->Valid(), "RocksDB: finding a record");
            visit(PeerKey::RevisionOf(at->key().data()), at->value().data(), at->value().size(),
                  sum);
            at->Next();
        }
    }

  private:
    std::unique_ptr<rocksdb::DB> m_records;
    rocksdb::WriteOptions m_writing;
    rocksdb::WriteBatch m_batch;  // of the transaction that is being appended
};

}  // namespace

std::unique_ptr<Peer> MakeRocksDb(const std::string& folder, Durability durability) {
    return std::make_unique<RocksDbPeer>(folder, durability);
}

}  // namespace k9erepl::bench
