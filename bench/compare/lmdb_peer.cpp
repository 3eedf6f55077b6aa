// LMDB as a peer: a writable map, keys appended in order. What is not durable leaves all flushes to
// the disk out, as our storages do without force_flush.
#include <lmdb.h>

#include "bench_storage.h"
#include "compare/peer.h"

namespace k9erepl::bench {

namespace {

constexpr std::size_t kMapSize = std::size_t{4} << 30;

void Check(int rc, const char* what) {
    Require(rc == MDB_SUCCESS, what);
}

class LmdbPeer : public Peer {
  public:
    LmdbPeer(const std::string& folder, Durability durability) {
        const unsigned notDurable =
            durability == Durability::kDisk ? 0 : MDB_NOSYNC | MDB_NOMETASYNC;
        Check(mdb_env_create(&m_env), "LMDB: making an environment");
        Check(mdb_env_set_mapsize(m_env, kMapSize), "LMDB: setting the map's size");
        Check(mdb_env_open(m_env, folder.c_str(), MDB_WRITEMAP | notDurable, 0644),
              "LMDB: opening");
        MDB_txn* txn = nullptr;
        Check(mdb_txn_begin(m_env, nullptr, 0, &txn), "LMDB: beginning");
        Check(mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY, &m_records), "LMDB: opening the table");
        Check(mdb_txn_commit(txn), "LMDB: committing");
        Check(mdb_txn_begin(m_env, nullptr, MDB_RDONLY, &m_reading), "LMDB: beginning to read");
        mdb_txn_reset(m_reading);
    }

    ~LmdbPeer() override {
        mdb_txn_abort(m_reading);
        mdb_env_close(m_env);
    }

    void Append(i64 firstRev, int count, const std::string& data) override {
        MDB_txn* txn = nullptr;
        Check(mdb_txn_begin(m_env, nullptr, 0, &txn), "LMDB: beginning");
        for (i64 rev = firstRev; rev < firstRev + count; ++rev) {
            MDB_val key{sizeof(rev), &rev};
            MDB_val value{data.size(), const_cast<char*>(data.data())};
            Check(mdb_put(txn, m_records, &key, &value, MDB_APPEND), "LMDB: appending");
        }
        Check(mdb_txn_commit(txn), "LMDB: committing");
    }

    void Range(i64 fromRev, i64 count, PeerVisit visit, i64* sum) override {
        Check(mdb_txn_renew(m_reading), "LMDB: beginning to read");
        MDB_cursor* cursor = nullptr;
        Check(mdb_cursor_open(m_reading, m_records, &cursor), "LMDB: opening a cursor");
        MDB_val key{sizeof(fromRev), &fromRev};
        MDB_val value{};
        Check(mdb_cursor_get(cursor, &key, &value, MDB_SET_KEY), "LMDB: finding a record");
        for (i64 left = count; left > 0; --left) {
            visit(*static_cast<const i64*>(key.mv_data), value.mv_data, value.mv_size, sum);
            if (left > 1) {
                Check(mdb_cursor_get(cursor, &key, &value, MDB_NEXT), "LMDB: going on");
            }
        }
        mdb_cursor_close(cursor);
        mdb_txn_reset(m_reading);
    }

  private:
    MDB_env* m_env = nullptr;
    MDB_dbi m_records = 0;
    MDB_txn* m_reading = nullptr;  // renewed for each range, reset after it
};

}  // namespace

std::unique_ptr<Peer> MakeLmdb(const std::string& folder, Durability durability) {
    return std::make_unique<LmdbPeer>(folder, durability);
}

}  // namespace k9erepl::bench
