// What LevelDB and RocksDB have in common as peers: one batch of writes a transaction, without
// compression, as our storages have none. Their interfaces are alike but for the namespace.
#ifndef K9EREPL_BENCH_COMPARE_SORTED_PEER_H
#define K9EREPL_BENCH_COMPARE_SORTED_PEER_H

#include <memory>
#include <string>

#include "bench_storage.h"
#include "compare/peer.h"
#include "compare/peer_key.h"

namespace k9erepl::bench {

// `Library` has the types DB, Options, ReadOptions, WriteOptions, WriteBatch, Iterator and Slice of
// the library, and its name as kName.
template <typename Library>
class SortedPeer : public Peer {
  public:
    SortedPeer(const std::string& folder, Durability durability) {
        typename Library::Options options;
        options.create_if_missing = true;
        options.compression = Library::kNoCompression;
        typename Library::DB* opened = nullptr;
        Demand(Library::DB::Open(options, folder + "/store", &opened).ok(), "opening");
        m_records.reset(opened);
        m_writing.sync = durability == Durability::kDisk;
    }

    void Append(i64 firstRev, int count, const std::string& data) override {
        m_batch.Clear();
        for (i64 rev = firstRev; rev < firstRev + count; ++rev) {
            const PeerKey key(rev);
            m_batch.Put(typename Library::Slice(key.Bytes(), key.Size()), data);
        }
        Demand(m_records->Write(m_writing, &m_batch).ok(), "appending");
    }

    void Range(i64 fromRev, i64 count, PeerVisit visit, i64* sum) override {
        const std::unique_ptr<typename Library::Iterator> at(
            m_records->NewIterator(typename Library::ReadOptions()));
        const PeerKey first(fromRev);
        at->Seek(typename Library::Slice(first.Bytes(), first.Size()));
        for (i64 left = count; left > 0; --left) {
            Demand(at->Valid(), "finding a record");
            visit(PeerKey::RevisionOf(at->key().data()), at->value().data(), at->value().size(),
                  sum);
            at->Next();
        }
    }

  private:
    static void Demand(bool ok, const char* what) {
        if (!ok) {
            Require(false, (std::string(Library::kName) + ": " + what).c_str());
        }
    }

    std::unique_ptr<typename Library::DB> m_records;
    typename Library::WriteOptions m_writing;
    typename Library::WriteBatch m_batch;  // of the transaction that is being appended
};

}  // namespace k9erepl::bench

#endif  // K9EREPL_BENCH_COMPARE_SORTED_PEER_H
