// Deleting the index file that a connection string names.
#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include "index/index_file.h"
#include "index/index_fixture.h"

namespace k9erepl::test {
namespace {

class IndexFileDelete : public ::testing::Test {
  protected:
    std::string ConnStr() const { return "file=" + m_folder.File("data.edb"); }
    std::string Path() const { return m_folder.File("data.edb-idx"); }

    TempFolder m_folder;
    LogCapture m_log;
};

TEST_F(IndexFileDelete, RemovesTheFileAndSaysSo) {
    WriteBytes(Path(), IndexFileBytes({}));
    EXPECT_EQ(DeleteIndexFile(ConnStr().c_str()), RC_OK);
    EXPECT_FALSE(Exists(Path()));
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Deleted index file '" + Path() + "'")) << m_log;
}

TEST_F(IndexFileDelete, OfAMissingFileIsDoneAndSaysSo) {
    EXPECT_EQ(DeleteIndexFile(ConnStr().c_str()), RC_OK);
    EXPECT_EQ(m_log.Messages().size(), 1U) << m_log;
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "No index file to delete;path '" + Path() + "'"))
        << m_log;
}

TEST_F(IndexFileDelete, AnswersASystemErrorForAFileThatStays) {
    ScopedSystemCalls systemCalls;
    WriteBytes(Path(), IndexFileBytes({}));
    FailRemove(1);
    EXPECT_EQ(DeleteIndexFile(ConnStr().c_str()), RC_SYSTEM_ERROR);
    EXPECT_TRUE(Exists(Path()));
    const std::string text = "Cannot delete index file;path '" + Path() + "'";
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_ERROR, text)) << m_log;
    EXPECT_EQ(m_log.CodeOf(text), RC_SYSTEM_ERROR);
}

TEST_F(IndexFileDelete, LeavesAStorageFileAlone) {
    WriteText(Path(), "K9_EREPL\3" + std::string(1055, '\0'));
    EXPECT_EQ(DeleteIndexFile(ConnStr().c_str()), RC_INVALID_ARG);
    EXPECT_TRUE(Exists(Path()));
    EXPECT_EQ(
        m_log.CodeOf("Index file is a storage file, nothing was changed;path '" + Path() + "'"),
        RC_INVALID_ARG)
        << m_log;
}

TEST_F(IndexFileDelete, DoesNothingWhereThereIsNoIndexFile) {
    for (const std::string file : {"file=:memory:", "file=:MEMORY:", "file=:Memory:"}) {
        WriteBytes(Path(), IndexFileBytes({}));
        EXPECT_EQ(DeleteIndexFile(file.c_str()), RC_OK);
        EXPECT_EQ(DeleteIndexFile((file + ";index_file=" + Path()).c_str()), RC_OK);
        EXPECT_TRUE(Exists(Path()));
    }
    EXPECT_TRUE(m_log.Messages().empty()) << m_log;
}

}  // namespace
}  // namespace k9erepl::test
