// An index file that is a storage, through the exported functions: refused, and nothing is touched.
#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <filesystem>

#include "engine/flush_fixture.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

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

TEST_F(IndexNames, ThatAreTheStorageItselfAreRefused) {
    const std::string conn = With(m_storage.Path());
    const std::string error = "Index file is another file of its storage;file path '" +
                              m_storage.Path() + "',index file path '" + m_storage.Path() + "'";
    EXPECT_EQ(TryOpen(conn), RC_INVALID_ARG);
    EXPECT_EQ(m_log.Texts(K9SYS_LOG_ERROR),
              Strings({error, "Failed to init storage;conn-str " + conn}));
    EXPECT_EQ(K9eReplStorageCreate(conn.c_str(), K9EREPL_CREATE_REPLACE), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageDelete(conn.c_str()), RC_INVALID_ARG);
    EXPECT_EQ(m_log.Count(error), 3U);
    EXPECT_EQ(ReadBytes(m_storage.Path()), m_bytes);
}

TEST_F(IndexNames, ThatAreAnotherStorageAreRefused) {
    const std::string other = m_storage.Folder().File("other");
    WriteBytes(other, m_bytes);
    const std::string conn = With(other);
    EXPECT_EQ(TryOpen(conn), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageCreate(conn.c_str(), K9EREPL_CREATE_REPLACE), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageDelete(conn.c_str()), RC_INVALID_ARG);
    EXPECT_EQ(ReadBytes(other), m_bytes);
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
