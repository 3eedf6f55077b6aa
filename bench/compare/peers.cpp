// The libraries that the program was built with; see the header.
#include "compare/peer.h"

namespace k9erepl::bench {

const std::vector<PeerKind>& Peers() {
    static const std::vector<PeerKind> peers = {
#ifdef K9EREPL_BENCH_LMDB
        {"LMDB", &MakeLmdb},
#endif
#ifdef K9EREPL_BENCH_LEVELDB
        {"LevelDB", &MakeLevelDb},
#endif
#ifdef K9EREPL_BENCH_ROCKSDB
        {"RocksDB", &MakeRocksDb},
#endif
#ifdef K9EREPL_BENCH_SQLITE
        {"SQLite", &MakeSqlite},
#endif
    };
    return peers;
}

std::string MissingPeers() {
    std::string missing;
    for (const char* name : {"LMDB", "LevelDB", "RocksDB", "SQLite"}) {
        bool found = false;
        for (const PeerKind& peer : Peers()) {
            found = found || std::string(name) == peer.name;
        }
        missing += found ? "" : (missing.empty() ? "" : ", ") + std::string(name);
    }
    return missing;
}

}  // namespace k9erepl::bench
