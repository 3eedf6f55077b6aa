// The row that saves the index file of storages with many blocks: the cost must follow what is new
// since the last save, and not what the storage holds.
#include <fmt/format.h>

#include <filesystem>
#include <thread>

#include "compare/posix/process.h"
#include "compare/row.h"
#include "compare/work.h"

namespace k9erepl::bench {

namespace {

namespace fs = std::filesystem;

constexpr int kHint = 50;   // blocks that are new at each save
constexpr int kSaves = 20;  // in one measurement
// A block holds one record of kDataSize bytes.
constexpr const char* kTinyBlocks =
    "block_size=138;cache_type=Last10;flush_mode=PerTrans;flush_trans_num=1;flush_timeout=10;";

// A storage of so many blocks, which each measurement copies.
class PreparedBlocks {
  public:
    void Fill(const std::string& folder, i64 blocks) {
        m_file = std::make_unique<BenchFile>(folder);
        const auto filled = RunInChild([&] {
            const std::string connStr =
                m_file->ConnStr(kTinyBlocks + std::string("index_hint=50000"));
            Require(K9eReplStorageCreate(connStr.c_str(), K9EREPL_CREATE_NEW) == RC_OK,
                    "creating the storage");
            BenchHandle storage(connStr);
            storage.Load();
            Append(storage.Get(), static_cast<int>(blocks));
            return 0.0;
        });
        Require(filled.has_value(), "filling the storage");
    }
    const std::string& Folder() const { return m_file->Folder(); }

  private:
    std::unique_ptr<BenchFile> m_file;
};

// Waits until the index file has another size than `before`; returns the new one.
u64 WaitForSave(const std::string& indexFile, u64 before) {
    for (int tries = 0; tries < 5'000; ++tries) {
        if (const u64 size = fs::file_size(indexFile); size != before) {
            return size;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    Require(false, "waiting for the index file to be saved");
    return 0;
}

// Returns microseconds of processor time of the storage's threads, and of the inserting one while
// it inserts, for each save.
double SaveIndex(const std::string& folder, const PreparedBlocks& prepared) {
    const BenchFile file(folder);
    fs::copy(prepared.Folder(), file.Folder(),
             fs::copy_options::recursive | fs::copy_options::overwrite_existing);
    const std::string indexFile = file.Path() + "-idx";
    BenchHandle storage(file.ConnStr(kTinyBlocks + fmt::format("index_hint={}", kHint)));
    storage.Load();
    // The first save after a load may write the whole file.
    u64 size = fs::file_size(indexFile);
    for (int begin = 0; begin < 3; ++begin) {
        Append(storage.Get(), 2 * kHint, 1);
        size = WaitForSave(indexFile, size);
    }
    double inserting = 0;
    const double others = ProcessCpuSeconds() - ThreadCpuSeconds();
    for (int saves = 0; saves < kSaves; ++saves) {
        const double began = ThreadCpuSeconds();
        Append(storage.Get(), kHint, 1);
        inserting += ThreadCpuSeconds() - began;
        size = WaitForSave(indexFile, size);
    }
    const double saving = ProcessCpuSeconds() - ThreadCpuSeconds() - others;
    return (inserting + saving) / kSaves * 1e6;
}

}  // namespace

void AddIndexRows(const Context& context, Rows* rows) {
    const i64 few = 10'000;
    const i64 many = context.Scaled(1'000'000);
    const auto fewBlocks = std::make_shared<PreparedBlocks>();
    const auto manyBlocks = std::make_shared<PreparedBlocks>();
    const std::string folder = context.memoryFolder;
    Row row;
    row.id = "index-save";
    row.title = fmt::format("50 blocks and an index save among {} blocks", many);
    row.unit = "µs of processor time";
    row.limit = fmt::format("the same among {} blocks", few);
    row.prepare = [=] {
        fewBlocks->Fill(folder, few);
        manyBlocks->Fill(folder, many);
    };
    row.contenders = {
        {"limit", Role::kLimit, [=] { return SaveIndex(folder, *fewBlocks); }},
        {"this library", Role::kOurs, [=] { return SaveIndex(folder, *manyBlocks); }}};
    row.marks = {{Mark::Kind::kTimesLimit, 1.5, ""}};
    rows->push_back(std::move(row));
}

}  // namespace k9erepl::bench
