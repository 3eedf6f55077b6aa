// Opens what a crash left and judges it: the content is one that the storage had, a second opening
// shows the same, and the storage goes on from there.
#ifndef K9EREPL_TESTS_RELIABILITY_ORACLE_H
#define K9EREPL_TESTS_RELIABILITY_ORACLE_H

#include <functional>
#include <string>

#include "model/storage_client.h"
#include "reliability/history.h"
#include "reliability/memory_disk.h"

namespace k9erepl::reliability {

// Everything that a storage shows of itself.
struct Seen {
    model::Records records;
    i64 nextRev = 0;
    i64 oldestRev = 0;
    u32 lifenum = 0;
    i64 mark = 0;

    bool operator==(const Seen&) const = default;
};
std::string Describe(const Seen& seen);

// What is wrong; empty when nothing is.
using Problem = std::string;
using Judge = std::function<Problem(const Seen& seen)>;

// What a loaded storage shows.
Problem Read(const model::StorageClient& client, Seen* seen);

// Opens, loads, reads, appends `records` records in one transaction, closes. *seen receives what
// was read; when the records are appended *after, unless null, receives it with them.
struct Appending {
    u32 records = 0;
    u32 dataSize = 0;
    u32 seed = 0;
};
Problem Visit(const std::string& connString, const Appending& appending, Seen* seen,
              Seen* after = nullptr);

// Whether `seen` is one of these states. Life number and revision mark may be those of another one
// of them: they reach the file by themselves.
Problem JudgeByStates(const History& history, StateRange range, const Seen& seen);

// The whole examination of an image: opened, judged, opened again with the same content, appended
// to, opened once more. `seed` chooses what is appended.
Problem Examine(MemoryDisk& disk, const DiskImage& image, const History& history, u64 seed,
                const Judge& judge);

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_ORACLE_H
