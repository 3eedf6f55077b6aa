// LevelDB as a peer: one batch of writes a transaction, without compression, as our storages have
// none.
#include <leveldb/db.h>
#include <leveldb/write_batch.h>

#include "bench_storage.h"
#include "compare/peer.h"
#include "compare/peer_key.h"

namespace k9erepl::bench {

namespace {

class LevelDbPeer : public Peer {
  public:
    LevelDbPeer(const std::string& folder, Durability durability) {
        leveldb::Options options;
        options.create_if_missing = true;
        options.compression = leveldb::kNoCompression;
        leveldb::DB* opened = nullptr;
        Require(leveldb::DB::Open(options, folder + "/store", &opened).ok(), "LevelDB: opening");
        m_records.reset(opened);
        m_writing.sync = durability == Durability::kDisk;
    }

    void Append(i64 firstRev, int count, const std::string& data) override {
        m_batch.Clear();
        for (i64 rev = firstRev; rev < firstRev + count; ++rev) {
            const PeerKey key(rev);
            m_batch.Put(leveldb::Slice(key.Bytes(), key.Size()), data);
        }
        Require(m_records->Write(m_writing, &m_batch).ok(), "LevelDB: appending");
    }

    void Range(i64 fromRev, i64 count, PeerVisit visit, i64* sum) override {
        const std::unique_ptr<leveldb::Iterator> at(m_records->NewIterator(leveldb::ReadOptions()));
        const PeerKey first(fromRev);
        at->Seek(leveldb::Slice(first.Bytes(), first.Size()));
        for (i64 left = count; left > 0; --left) {
            Require(at->Valid(), "LevelDB: finding a record");
            visit(PeerKey::RevisionOf(at->key().data()), at->value().data(), at->value().size(),
                  sum);
            at->Next();
        }
    }

  private:
    std::unique_ptr<leveldb::DB> m_records;
    leveldb::WriteOptions m_writing;
    leveldb::WriteBatch m_batch;  // of the transaction that is being appended
};

}  // namespace

std::unique_ptr<Peer> MakeLevelDb(const std::string& folder, Durability durability) {
    return std::make_unique<LevelDbPeer>(folder, durability);
}

}  // namespace k9erepl::bench
