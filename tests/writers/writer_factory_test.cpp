// Which writer the settings choose, and which words are refused.
#include "writers/writer_factory.h"
#include "writers/async_storage_writer.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/storage_exception.h"
#include "writers/writer_fixture.h"

namespace k9erepl::test {

namespace {

class WriterFactory : public WriterTest {
  protected:
    void ExpectSynchronous(const std::string& connStr, const std::string& text) {
        const std::unique_ptr<StorageWriter> writer =
            CreateStorageWriter(connStr.c_str(), &m_state);
        EXPECT_NE(dynamic_cast<SyncStorageWriter*>(writer.get()), nullptr);
        const LoggedMessage expected{K9SYS_LOG_INFO, "k9eRepl-storage", text, 0};
        EXPECT_EQ(m_log.Messages(), std::vector{expected}) << m_log;
    }

    u32 ErrorOf(const std::string& connStr, StorageFileState* state) {
        try {
            CreateStorageWriter(connStr.c_str(), state);
        } catch (const K9eStorageException& e) {
            return e.Code();
        }
        return RC_OK;
    }

    void ExpectInvalid(const std::string& value, const std::string& shown) {
        EXPECT_EQ(ErrorOf("async_mode=" + value, &m_state), RC_BAD_SIZE);
        const LoggedMessage expected{K9SYS_LOG_ERROR, "k9eRepl-storage",
                                     "Invalid 'async_mode' value (" + shown + ")", RC_BAD_SIZE};
        EXPECT_EQ(m_log.Messages(), std::vector{expected}) << m_log;
    }
};

}  // namespace

TEST_F(WriterFactory, WithoutTheSettingTheWriterIsSynchronous) {
    ExpectSynchronous("file=a", "Use default async_mode 'no'");
}

TEST_F(WriterFactory, AnEmptyValueCountsAsAbsent) {
    ExpectSynchronous("async_mode=;file=a", "Use default async_mode 'no'");
}

TEST_F(WriterFactory, NoGivesTheSynchronousWriter) {
    ExpectSynchronous("file=a;async_mode=no", "Use  async_mode 'no'");
}

TEST_F(WriterFactory, NoInCapitalsIsNo) {
    ExpectSynchronous("async_mode=No", "Use  async_mode 'No'");
}

TEST_F(WriterFactory, RefusesAnyOtherWord) {
    ExpectInvalid("maybe", "maybe");
}

TEST_F(WriterFactory, RefusesAWordThatOnlyBeginsRight) {
    ExpectInvalid("none", "none");
}

TEST_F(WriterFactory, RefusesAWordWithATrailingBlank) {
    ExpectInvalid("no ", "no ");
}

TEST_F(WriterFactory, CutsALongWordTo63Characters) {
    ExpectInvalid(std::string(100, 'y'), std::string(63, 'y'));
}

TEST_F(WriterFactory, MakesTheAsynchronousWriterForYesInAnyCaseOfLetters) {
    for (const std::string connStr : {"async_mode=yes", "async_mode=YES;file=a"}) {
        const auto writer = CreateStorageWriter(connStr.c_str(), &m_state);
        EXPECT_NE(dynamic_cast<AsyncStorageWriter*>(writer.get()), nullptr) << connStr;
    }
}

TEST_F(WriterFactory, PassesTheWritersOwnCodesOn) {
    EXPECT_EQ(ErrorOf("", nullptr), RC_INVALID_ARG);
    m_state.path = m_folder.File("missing");
    EXPECT_EQ(ErrorOf("", &m_state), RC_SYSTEM_ERROR);
}

}  // namespace k9erepl::test
