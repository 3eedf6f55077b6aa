// What the tests of enumeration and loading add to the vocabulary: settings under which blocks
// soon leave memory, index files made by hand, meters of the bytes read and the blocks held.
#ifndef K9EREPL_TESTS_ENGINE_LOAD_FIXTURE_H
#define K9EREPL_TESTS_ENGINE_LOAD_FIXTURE_H

#include <functional>
#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "engine/storage_fixture.h"
#include "support/call_layer.h"
#include "support/storage_file_builder.h"

namespace k9erepl::test {

inline constexpr i64 kMaxI64 = std::numeric_limits<i64>::max();

// Every commit is flushed; nothing happens by time alone. Blocks of 138 bytes take one record of
// 46 to 114 bytes, or two of up to 45.
inline constexpr std::string_view kEachCommit =
    "flush_mode=PerTrans;flush_trans_num=1;flush_timeout=3600000;read_buffers_count=1;"
    "block_size=138;";
inline constexpr std::string_view kNoFile = "cache_type=AllInMem;flush_mode=NoFlush;";

// kEachCommit and a cache of `blocks` blocks.
std::string SmallCache(u32 blocks, std::string_view more = "");

// "file=<the storage's file>;read_only=yes;" and the settings: for a second TestStorage, a reader
// beside the writer, that begins with Start::kNothing.
std::string ReaderSettings(const TestStorage& writer, std::string_view settings = "");

// Text that fills a block of 138 bytes, beginning with `text`.
std::string OneBlock(std::string_view text);

// Calls `callback` for each record, as EnumRecords would.
using RecordFunction = std::function<u32(const K9eReplRec& rec)>;
u32 EnumerateWith(TestStorage& storage, i64 fromRev, i64 toRev, const RecordFunction& callback);

// The revisions of an enumeration that must succeed.
using Revs = std::vector<i64>;
// Walks everything up to `toRev` and calls `meanwhile` with the revision of each record.
Revs Walk(TestStorage& storage, const std::function<void(i64 rev)>& meanwhile,
          i64 toRev = kEndOfRevs);
Revs RevsOf(const SeenRecords& records);
Revs RevRange(i64 first, i64 last);

// What a storage should hold.
using Model = std::map<i64, std::string>;
Model ModelOf(const SeenRecords& records);
// Compares every range of revisions around the model's, both bounds included.
void ExpectEveryRange(TestStorage& storage, const Model& model, i64 lastRev);

// The index file of a storage: its path, its entries (revision and file offset), its making.
using IndexEntries = std::vector<std::pair<i64, i64>>;
std::string IndexPath(const TestStorage& storage);
IndexEntries ReadIndexEntries(const TestStorage& storage);
std::vector<u8> IndexBytes(const IndexEntries& entries, u32 blockSize = 138);
void WriteIndex(const TestStorage& storage, const IndexEntries& entries, u32 blockSize = 138);
// The entries as the index file should have them after a save.
IndexEntries EntriesInMemory(TestStorage& storage);

// While it lives, counts the bytes that are read from files. It must begin before every storage.
class ReadMeter : CallLayer<ReadMeter> {
  public:
    ReadMeter();

    u64 Bytes() const;
    void Restart();

  private:
    friend CallLayer<ReadMeter>;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_ENGINE_LOAD_FIXTURE_H
