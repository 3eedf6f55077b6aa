// SQLite as a peer: one table keyed by revision, with a write-ahead log, which is flushed to the
// disk with each transaction only when it is to be durable.
#include <sqlite3.h>

#include "bench_storage.h"
#include "compare/peer.h"

namespace k9erepl::bench {

namespace {

class SqlitePeer : public Peer {
  public:
    SqlitePeer(const std::string& folder, Durability durability) {
        Require(sqlite3_open((folder + "/store.db").c_str(), &m_db) == SQLITE_OK,
                "SQLite: opening");
        Run("PRAGMA journal_mode=WAL");
        Run(durability == Durability::kDisk ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=OFF");
        Run("CREATE TABLE records(rev INTEGER PRIMARY KEY, data BLOB NOT NULL)");
        m_insert = Prepared("INSERT INTO records VALUES(?1, ?2)");
        m_range = Prepared("SELECT rev, data FROM records WHERE rev >= ?1 ORDER BY rev LIMIT ?2");
        m_begin = Prepared("BEGIN");
        m_commit = Prepared("COMMIT");
    }

    ~SqlitePeer() override {
        for (sqlite3_stmt* statement : {m_insert, m_range, m_begin, m_commit}) {
            sqlite3_finalize(statement);
        }
        sqlite3_close(m_db);
    }

    void Append(i64 firstRev, int count, const std::string& data) override {
        Step(m_begin, SQLITE_DONE);
        for (i64 rev = firstRev; rev < firstRev + count; ++rev) {
            sqlite3_bind_int64(m_insert, 1, rev);
            sqlite3_bind_blob(m_insert, 2, data.data(), static_cast<int>(data.size()),
                              SQLITE_STATIC);
            Step(m_insert, SQLITE_DONE);
        }
        Step(m_commit, SQLITE_DONE);
    }

    void Range(i64 fromRev, i64 count, PeerVisit visit, i64* sum) override {
        sqlite3_bind_int64(m_range, 1, fromRev);
        sqlite3_bind_int64(m_range, 2, count);
        for (i64 left = count; left > 0; --left) {
            Require(sqlite3_step(m_range) == SQLITE_ROW, "SQLite: finding a record");
            visit(sqlite3_column_int64(m_range, 0), sqlite3_column_blob(m_range, 1),
                  static_cast<std::size_t>(sqlite3_column_bytes(m_range, 1)), sum);
        }
        sqlite3_reset(m_range);
    }

  private:
    void Run(const char* sql) {
        Require(sqlite3_exec(m_db, sql, nullptr, nullptr, nullptr) == SQLITE_OK, sql);
    }

    sqlite3_stmt* Prepared(const char* sql) {
        sqlite3_stmt* statement = nullptr;
        Require(sqlite3_prepare_v2(m_db, sql, -1, &statement, nullptr) == SQLITE_OK, sql);
        return statement;
    }

    static void Step(sqlite3_stmt* statement, int expected) {
        Require(sqlite3_step(statement) == expected, "SQLite: running a statement");
        sqlite3_reset(statement);
    }

    sqlite3* m_db = nullptr;
    // The statements live as long as the database is open.
    sqlite3_stmt* m_insert = nullptr;
    sqlite3_stmt* m_range = nullptr;
    sqlite3_stmt* m_begin = nullptr;
    sqlite3_stmt* m_commit = nullptr;
};

}  // namespace

std::unique_ptr<Peer> MakeSqlite(const std::string& folder, Durability durability) {
    return std::make_unique<SqlitePeer>(folder, durability);
}

}  // namespace k9erepl::bench
