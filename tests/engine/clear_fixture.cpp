// The vocabulary of the tests of clearing and truncation; see the header.
#include "engine/clear_fixture.h"

#include <gtest/gtest.h>

#include "platform/file_names.h"
#include "support/file_bytes.h"

namespace k9erepl::test {

std::ostream& operator<<(std::ostream& out, const Keeping& keeping) {
    return out << keeping.name;
}

std::string NameOfKeeping(const ::testing::TestParamInfo<Keeping>& info) {
    return info.param.name;
}

const std::vector<Keeping>& AllKeepings() {
    static const std::vector<Keeping> keepings = {
        {"InMemoryAndFile", With(kFlushAlways, "block_size=138;cache_type=AllInMem;")},
        {"OneBlockInMemory", With(kFlushAlways, "block_size=138;cache_type=Last1;")},
        {"ThreeBlocksInMemory", With(kFlushAlways, "block_size=138;cache_type=Last3;")},
        {"NothingFlushed", With(kFlushNever, "block_size=138;cache_type=AllInMem;")},
        {"TailUnflushed",
         "flush_mode=PerTrans;flush_trans_num=5;flush_timeout=2147483647;read_buffers_count=1;"
         "block_size=138;cache_type=Last1;"},
        {"FlushedByData",
         "flush_mode=PerData;flush_data_size=200;flush_timeout=2147483647;read_buffers_count=1;"
         "block_size=138;cache_type=Last2;"},
        {"NoFile", With(kInMemory, "block_size=138;"), false}};
    return keepings;
}

std::vector<Keeping> KeepingsWithFile() {
    std::vector<Keeping> keepings = AllKeepings();
    std::erase_if(keepings, [](const Keeping& keeping) { return !keeping.hasFile; });
    return keepings;
}

const Keeping& KeepInMemory() {
    return AllKeepings()[0];
}

const Keeping& KeepOnDisk() {
    return AllKeepings()[1];
}

ClearableStorage::ClearableStorage(const Keeping& keeping, std::string_view more)
    : TestStorage(With(keeping.settings, more)), m_hasFile(keeping.hasFile) {}

std::string ClearableStorage::TextOf(i64 rev) {
    std::string text = "r" + std::to_string(rev);
    text.resize(40, '.');
    return text;
}

void ClearableStorage::Put(u32 count) {
    for (u32 n = 0; n < count; ++n) {
        ASSERT_EQ(Insert(TextOf(m_nextRev)), RC_OK);
        m_model[m_nextRev] = TextOf(m_nextRev);
        ++m_nextRev;
    }
}

void ClearableStorage::PutAt(i64 rev) {
    ASSERT_EQ(InsertP(rev, TextOf(rev)), RC_OK);
    m_model[rev] = TextOf(rev);
    m_nextRev = rev + 1;
}

// The size is enough for the refusal: the data is not looked at.
void ClearableStorage::Refuse(u32 dataSize) {
    Record record("");
    record->dataSize = dataSize;
    ASSERT_EQ(Begin(), RC_OK);
    ASSERT_EQ(K9eReplStorageInsert(Handle(), record.Get()), RC_INVALID_ARG);
    ASSERT_EQ(Commit(), RC_OK);
    ++m_nextRev;
}

void ClearableStorage::UseUpLeavingABlock() {
    Refuse(115);
}

void ClearableStorage::UseUp() {
    Refuse(10 * 1024 * 1024);
}

void ClearableStorage::ClearTo(i64 rev, u32 mode) {
    const bool nothingThere = StorageAccess::Blocks(Object()).Index().empty();
    ASSERT_EQ(Clear(rev, mode), RC_OK);
    if (nothingThere || rev <= m_oldestRev) {
        return;
    }
    m_model.erase(m_model.begin(), m_model.lower_bound(rev));
    const bool allGone = rev >= m_nextRev || (m_hasFile && m_model.empty());
    m_oldestRev = allGone ? m_nextRev - 1 : rev;
}

void ClearableStorage::ExpectContent() {
    EXPECT_EQ(State(), StorageState::kOpen);
    EXPECT_EQ(ModelOf(Records()), m_model);
    EXPECT_EQ(NextRev(), m_nextRev);
    EXPECT_EQ(OldestRev(), m_oldestRev);
}

void ClearableStorage::ExpectContentForLife() {
    {
        SCOPED_TRACE("after the clear");
        ExpectContent();
    }
    SCOPED_TRACE("with more records");
    Put(2);
    ExpectContent();
    if (!m_hasFile) {
        return;
    }
    SCOPED_TRACE("reopened");
    Reopen();
    ExpectContent();
    Put();
    ExpectContent();
    SCOPED_TRACE("reopened without the index");
    ReopenWithoutIndex();
    ExpectContent();
}

void ClearableStorage::ReopenWithoutIndex() {
    Close();
    EXPECT_TRUE(platform::RemoveFile(IndexPath(*this)));
    ASSERT_EQ(TryOpenAndLoad(), RC_OK);
}

Revs ClearRevs(const TestStorage& storage) {
    const std::vector<u8> bytes = FileBytes(storage);
    Revs revs;
    u64 offset = kFirstCommitOffset;
    while (offset + kCommitBlockSize <= bytes.size()) {
        const u8* const item = bytes.data() + offset;
        const u32 signature = LoadUnaligned<u32>(item);
        if (signature == kCommitSignature) {
            revs.push_back(LoadUnaligned<TCommitBlock>(item).clearRev);
            offset += kCommitBlockSize;
        } else if (signature == kRecordSignature) {
            offset += LoadUnaligned<TRecordHead>(item).size;
        } else {
            break;
        }
    }
    return revs;
}

std::string BackupPath(const TestStorage& storage) {
    return storage.Path() + ".backup";
}

std::string TemporaryPath(const TestStorage& storage) {
    return storage.Path() + ".temporary";
}

}  // namespace k9erepl::test
