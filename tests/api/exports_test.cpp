// What the exported functions do beyond forwarding: creating, deleting, handing out the file, and
// refusing an index file that is a storage.
#include <gtest/gtest.h>
#include <k9erepl/storage_interfaces.h>

#include <filesystem>

#include "engine/flush_fixture.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

std::string IndexPath(const TestStorage& storage) {
    return storage.Path() + "-idx";
}

TEST(StartupAndCleanup, DoNothing) {
    EXPECT_EQ(K9eReplStorageStartup(), RC_OK);
    EXPECT_EQ(K9eReplStorageStartup(), RC_OK);
    K9eReplStorageCleanup();
}

TEST(NullPointers, AreRefusedWithoutAMessage) {
    const LogCapture log;
    EXPECT_EQ(K9eReplStorageOpen(nullptr, nullptr), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageCreate(nullptr, 0), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageInsert(nullptr, nullptr), RC_INVALID_ARG);
    EXPECT_TRUE(log.Messages().empty()) << log;
}

TEST(CreateExport, MakesTheFileWithoutOpeningAStorage) {
    TestStorage storage("", Start::kNothing);
    EXPECT_EQ(storage.TryCreate(), RC_OK);
    EXPECT_EQ(FileItems(storage), Strings({"c0"}));
    EXPECT_FALSE(Exists(IndexPath(storage)));
}

TEST(DeleteExport, DeletesTheStorageFileAndTheIndexFileIfThereIsOne) {
    TestStorage storage(kFlushAlways);
    storage.InsertCommitted({"one"});
    storage.Close();
    for (const bool hasIndex : {true, false}) {
        ASSERT_EQ(Exists(IndexPath(storage)), hasIndex);
        EXPECT_EQ(K9eReplStorageDelete(storage.ConnStr().c_str()), RC_OK);
        EXPECT_FALSE(Exists(storage.Path()));
        EXPECT_FALSE(Exists(IndexPath(storage)));
        EXPECT_EQ(K9eReplStorageDelete(storage.ConnStr().c_str()), RC_SYSTEM_ERROR);
        EXPECT_EQ(storage.TryCreate(), RC_OK);
    }
}

TEST(CloseExport, AnswersOkAlsoWhenItDestroysTheStorage) {
    TestStorage storage;
    void* duplicate = nullptr;
    ASSERT_EQ(K9eReplStorageDuplicateHandle(storage.Handle(), &duplicate), RC_OK);
    EXPECT_EQ(K9eReplStorageClose(duplicate), RC_OK);
    storage.Close();  // expects RC_OK
}

TEST(GetLLStorageExport, HandsOutTheFileOfTheStorage) {
    TestStorage storage(kFlushAlways);
    storage.InsertCommitted({"one", "two"});
    EXPECT_EQ(storage.WaitForWriter(), RC_OK);
    void* out = nullptr;
    ASSERT_EQ(K9eReplStorageGetLLStorage(storage.Handle(), &out), RC_OK);
    auto* file = static_cast<IK9eReplLLStorage*>(out);
    Revs seen;
    const u32 rc = file->ScanFile(
        [](u64, const K9eReplRec* rec, void* ctx) -> u32 {
            static_cast<Revs*>(ctx)->push_back(i64{rec->rev});
            return RC_OK;
        },
        [](void* ctx, i64, i64 commitRev) -> u32 {
            static_cast<Revs*>(ctx)->push_back(-commitRev);
            return RC_OK;
        },
        &seen);
    EXPECT_EQ(rc, RC_OK);
    EXPECT_EQ(seen, Revs({0, 1, 2, -2}));
    EXPECT_EQ(storage.DataSource().AddRef(), 2U) << "no reference was added";
    EXPECT_EQ(storage.DataSource().Release(), 1U);
}

// A storage with records, closed, in front of which an index file is named that is no index file.
class IndexNames : public ::testing::Test {
  protected:
    IndexNames() {
        m_storage.InsertCommitted({"one", "two"});
        m_storage.Close();
        m_bytes = ReadBytes(m_storage.Path());
        m_log.Clear();
    }
    std::string With(const std::string& index) const {
        return m_storage.ConnStr() + ";index_file=" + index;
    }
    static u32 TryOpen(const std::string& conn) {
        void* handle = nullptr;
        const u32 rc = K9eReplStorageOpen(conn.c_str(), &handle);
        if (rc == RC_OK) {
            K9eReplStorageClose(handle);
        }
        return rc;
    }

    LogCapture m_log;
    TestStorage m_storage{kFlushAlways};
    std::vector<u8> m_bytes;
};

TEST_F(IndexNames, ThatAreTheStorageItselfOrAnotherOneAreRefused) {
    const std::string other = m_storage.Folder().File("other");
    WriteBytes(other, m_bytes);
    for (const std::string& index : {m_storage.Path(), other}) {
        const std::string conn = With(index);
        m_log.Clear();
        EXPECT_EQ(TryOpen(conn), RC_INVALID_ARG);
        EXPECT_EQ(m_log.Texts(K9SYS_LOG_ERROR).back(), "Failed to init storage;conn-str " + conn);
        EXPECT_EQ(K9eReplStorageCreate(conn.c_str(), K9EREPL_CREATE_REPLACE), RC_INVALID_ARG);
        EXPECT_EQ(K9eReplStorageDelete(conn.c_str()), RC_INVALID_ARG);
        EXPECT_EQ(m_log.Count("Index file is another file of its storage;file path '" +
                              m_storage.Path() + "',index file path '" + index + "'"),
                  index == other ? 0U : 3U);
        EXPECT_EQ(ReadBytes(index), m_bytes);
    }
    EXPECT_EQ(ReadBytes(m_storage.Path()), m_bytes);
}

// The file comes there between the opening and the load, which would make the index file anew.
TEST_F(IndexNames, ThatBecomeAStorageMeanwhileFailTheLoad) {
    const std::string other = m_storage.Folder().File("other");
    void* handle = nullptr;
    ASSERT_EQ(K9eReplStorageOpen(With(other).c_str(), &handle), RC_OK);
    WriteBytes(other, m_bytes);
    EXPECT_EQ(K9eReplStorageLoad(handle), RC_INVALID_ARG);
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_ERROR,
                          "Index file is a storage file, nothing was changed;path '" + other + "'"))
        << m_log;
    std::filesystem::remove(other);
    EXPECT_EQ(K9eReplStorageLoad(handle), RC_OK);
    EXPECT_EQ(K9eReplStorageClose(handle), RC_OK);
    EXPECT_EQ(ReadBytes(m_storage.Path()), m_bytes);
}

}  // namespace
}  // namespace k9erepl::test
