// The setting read_only: a storage that is opened to be read only, beside its writer or where
// nothing may be written.
#include <gtest/gtest.h>

#include "engine/load_fixture.h"
#include "platform/system_error.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// The texts of `count` records that fill a block each.
Strings Blocks(u32 count) {
    Strings texts = Numbered(count);
    for (std::string& text : texts) {
        text = OneBlock(text);
    }
    return texts;
}

// While it lives, files open for reading only, and whatever would change a file, a name or a folder
// is refused and counted. No other storage is open meanwhile.
class OnlyReading : CallLayer<OnlyReading> {
  public:
    OnlyReading() {
        Take<&CallTable::openFile, &OnlyReading::Open>();
        Take<&CallTable::writeFile, &OnlyReading::Write>();
        Take<&CallTable::setFileEnd, &OnlyReading::SetEnd>();
        Take<&CallTable::flushFile, &OnlyReading::ChangeFile>();
        Take<&CallTable::lockFile, &OnlyReading::ChangeFile>();
        Take<&CallTable::renameFile, &OnlyReading::ChangeNames>();
        Take<&CallTable::linkFile, &OnlyReading::ChangeNames>();
        Take<&CallTable::removeFile, &OnlyReading::ChangeName>();
        Take<&CallTable::makeDirectory, &OnlyReading::ChangeName>();
        Take<&CallTable::flushDirectory, &OnlyReading::ChangeName>();
        Take<&CallTable::createThread, &OnlyReading::CreateThread>();
    }

    u32 Refused() const { return m_refused; }

  private:
    friend CallLayer<OnlyReading>;
    bool Refuse() {
        ++m_refused;
        platform::SetLastSystemError(
            platform::SystemErrorOf(platform::SystemErrorKind::kAccessDenied));
        return false;
    }
    platform::NativeFile Open(const char* path, const platform::FileOpenRequest& request) {
        const bool reads = request.access == platform::FileAccess::kRead &&
                           request.disposition == platform::FileDisposition::kOpenExisting;
        return reads || Refuse() ? Below().openFile(path, request) : platform::kInvalidNativeFile;
    }
    i64 Write(platform::NativeFile, const void*, u32) { return Refuse() ? 0 : -1; }
    bool SetEnd(platform::NativeFile, i64) { return Refuse(); }
    bool ChangeFile(platform::NativeFile) { return Refuse(); }
    bool ChangeNames(const char*, const char*) { return Refuse(); }
    bool ChangeName(const char*) { return Refuse(); }
    void* CreateThread(platform::ThreadBody, void*) { return Refuse() ? this : nullptr; }

    u32 m_refused = 0;
};

// A writer whose file holds the records 1 to 5, of which Last2 keeps the newest in memory.
class ReadOnly : public ::testing::Test {
  protected:
    ReadOnly() {
        for (const std::string& text : Blocks(5)) {
            EXPECT_EQ(m_writer.Insert(text), RC_OK);
        }
        EXPECT_EQ(m_writer.WaitForWriter(), RC_OK);
    }
    void LoadReader(std::string_view settings = "") {
        m_reader.Use(ReaderSettings(m_writer, SmallCache(2, settings)));
        ASSERT_EQ(m_reader.TryOpenAndLoad(), RC_OK) << m_log;
    }
    void ExpectRefusedSetting(const std::string& setting, const std::string& text) {
        m_reader.Use("file=" + m_writer.Path() + ";" + setting);
        EXPECT_EQ(m_reader.TryOpen(), RC_INVALID_ARG);
        EXPECT_EQ(m_log.CodeOf(text), RC_INVALID_ARG) << m_log;
    }

    TestStorage m_writer{SmallCache(2)};
    LogCapture m_log;
    TestStorage m_reader{"", Start::kNothing};
};

TEST_F(ReadOnly, SaysThatItIsUsedAndNothingWhenItIsAbsent) {
    m_writer.Reopen();
    EXPECT_EQ(m_log.CountContaining("read_only"), 0U) << m_log;
    LoadReader();
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Use read_only yes")) << m_log;
    m_reader.Close();
    m_reader.Use("file=" + m_writer.Path() + "-other;read_only=no;");
    EXPECT_EQ(m_reader.TryOpen(), RC_SYSTEM_ERROR);
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Use read_only no")) << m_log;
}

TEST_F(ReadOnly, RefusesAnUnknownValueAndNoFlush) {
    ExpectRefusedSetting("read_only=maybe;", "Unknown read_only value (maybe)");
    ExpectRefusedSetting("read_only=yes;cache_type=AllInMem;flush_mode=NoFlush;",
                         "read_only cannot be used with flush_mode NoFlush");
}

TEST_F(ReadOnly, ServesTheFileBesideItsWriter) {
    ASSERT_EQ(K9eReplStorageSetLifenum(m_writer.Handle(), 7), RC_OK);
    ASSERT_EQ(m_writer.Clear(3, K9EREPL_CLEAR_MARK), RC_OK);
    for (const char* cache : {"cache_type=Last2;", "cache_type=AllInMem;"}) {
        m_reader.Use(ReaderSettings(m_writer, std::string(kEachCommit) + cache));
        ASSERT_EQ(m_reader.TryOpen(), RC_OK);
        EXPECT_EQ(m_reader.Truncate(), RC_NOT_SUPPORTED);
        EXPECT_EQ(m_reader.State(), StorageState::kClosed);
        ASSERT_EQ(m_reader.TryLoad(), RC_OK);
        EXPECT_EQ(m_reader.Lifenum(), 7U);
        EXPECT_EQ(m_reader.RevisionMark(), 3);
        EXPECT_EQ(m_reader.Texts(), Blocks(5));
        EXPECT_EQ(m_reader.NextRev(), 6);
        EXPECT_EQ(m_reader.Texts(2, 3), Strings({OneBlock("r2"), OneBlock("r3")}));
        m_reader.Close();
    }
}

TEST_F(ReadOnly, ChangesNothingAndStartsNoThread) {
    m_writer.Close();
    const std::vector<u8> before = ReadBytes(m_writer.Path());
    const std::vector<u8> indexBefore = ReadBytes(IndexPath(m_writer));
    const OnlyReading onlyReading;
    LoadReader("file_size_delta=1;force_flush=yes;async_mode=yes;");
    EXPECT_EQ(m_reader.Texts(), Blocks(5));
    EXPECT_EQ(m_reader.DataSource().FlushOnIdle(), RC_OK);
    m_reader.Close();
    EXPECT_EQ(onlyReading.Refused(), 0U) << m_log;
    EXPECT_EQ(ReadBytes(m_writer.Path()), before);
    EXPECT_EQ(ReadBytes(IndexPath(m_writer)), indexBefore);
}

TEST_F(ReadOnly, LoadsWithAndWithoutAnIndexFile) {
    m_writer.Reopen();
    m_log.Clear();
    LoadReader();
    EXPECT_EQ(m_reader.Texts(), Blocks(5));
    EXPECT_EQ(m_log.CountContaining("Index test passed"), 1U) << m_log;
    m_reader.Close();
    m_log.Clear();
    LoadReader("index_file=" + m_writer.Folder().File("none") + ";");
    EXPECT_EQ(m_reader.Texts(), Blocks(5));
    EXPECT_EQ(m_log.CountContaining("Index test passed"), 0U) << m_log;
    EXPECT_FALSE(Exists(m_writer.Folder().File("none")));
}

TEST_F(ReadOnly, RefusesEveryCallThatChangesSomething) {
    LoadReader();
    const auto refused = [this](const std::string& call, u32 rc) {
        EXPECT_EQ(rc, RC_NOT_SUPPORTED) << call;
        const std::string text = "Storage is read-only;refused " + call;
        EXPECT_EQ(m_log.CodeOf(text), RC_NOT_SUPPORTED) << m_log;
        m_log.Clear();
    };
    refused("BeginTransaction", m_reader.Begin());
    refused("Insert", m_reader.Insert("new"));
    refused("InsertP", m_reader.InsertP(9, "new"));
    refused("Commit", m_reader.Commit());
    refused("Rollback", m_reader.Rollback());
    refused("Truncate", m_reader.Truncate());
    for (const u32 mode : {0U, 1U, 2U, 4U}) {
        refused("ClearOldRev", m_reader.Clear(3, mode));
    }
    refused("ClearOldRev", m_reader.ClearAll(0));
    refused("SetLifenum", K9eReplStorageSetLifenum(m_reader.Handle(), 7));
    EXPECT_EQ(m_reader.Texts(), Blocks(5));
    EXPECT_EQ(m_reader.NextRev(), 6);
}

TEST_F(ReadOnly, KeepsNoCopyOfADamagedTail) {
    m_writer.Close();
    std::vector<u8> bytes = ReadBytes(m_writer.Path());
    bytes[kFirstItemOffset] ^= 0xFF;
    WriteBytes(m_writer.Path(), bytes);
    LoadReader("index_file=" + m_writer.Folder().File("none") + ";");
    EXPECT_EQ(m_log.CountContaining("Damage in the middle of file"), 1U) << m_log;
    EXPECT_FALSE(Exists(m_writer.Path() + ".damaged-tail"));
    EXPECT_EQ(ReadBytes(m_writer.Path()), bytes);
}

TEST_F(ReadOnly, ScansForHosts) {
    LoadReader();
    void* solid = nullptr;
    ASSERT_EQ(K9eReplStorageGetLLStorage(m_reader.Handle(), &solid), RC_OK);
    Revs revs;
    const auto onRecord = [](std::uint64_t, const K9eReplRec* rec, void* ctx) -> std::uint32_t {
        static_cast<Revs*>(ctx)->push_back(i64{rec->rev});
        return RC_OK;
    };
    const auto onCommit = [](void*, std::int64_t, std::int64_t) -> std::uint32_t { return RC_OK; };
    auto* const storage = static_cast<IK9eReplLLStorage*>(solid);
    EXPECT_EQ(storage->ScanFile(onRecord, onCommit, &revs), RC_OK);
    EXPECT_EQ(revs, RevRange(1, 5));
    EXPECT_EQ(m_reader.Texts(), Blocks(5));
}

}  // namespace
}  // namespace k9erepl::test
