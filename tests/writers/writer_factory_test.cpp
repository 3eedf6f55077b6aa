// Which writer the settings choose, and which words are refused; the writer's handle on the file
// and its write position: opening, placing, reopening.
#include "writers/writer_factory.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/storage_exception.h"
#include "writers/async_calls.h"
#include "writers/async_storage_writer.h"
#include "writers/writer_fixture.h"

namespace k9erepl::test {
namespace {

std::vector<platform::FileOpenRequest> g_requests;

platform::NativeFile RecordingOpen(const char* path, const platform::FileOpenRequest& request) {
    g_requests.push_back(request);
    return platform::NativeSystemCalls().openFile(path, request);
}

class WriterFile : public WriterTest {
  protected:
    WriterFile() { g_requests.clear(); }
};

TEST_F(WriterFile, IsOpenedForReadingAndWritingAndSharedForBoth) {
    platform::TheSystemCalls().openFile = RecordingOpen;
    m_state.writeThrough = true;
    Writer();
    ASSERT_EQ(Writer().ReopenFile(m_path, false), RC_OK);
    ASSERT_EQ(g_requests.size(), 2U);
    EXPECT_EQ(g_requests[0].access, platform::FileAccess::kReadWrite);
    EXPECT_EQ(g_requests[0].disposition, platform::FileDisposition::kOpenExisting);
    EXPECT_EQ(g_requests[0].sharing, platform::FileSharing::kReadWrite);
    EXPECT_TRUE(g_requests[0].writeThrough);
    EXPECT_FALSE(g_requests[1].writeThrough);
}

TEST_F(WriterFile, IsWrittenFromItsRecordedSizeOn) {
    SyncStorageWriter writer(&m_state);
    EXPECT_EQ(writer.WritePos(), kNewFileSize);
    Bytes data = BytesOf("at the end");
    ASSERT_EQ(writer.Write(data.data(), 10, nullptr, nullptr, 0, nullptr), RC_OK);
    EXPECT_EQ(FileBytes(kNewFileSize, 10), data);
    EXPECT_EQ(FileLength(), kNewFileSize + 10);
}

TEST_F(WriterFile, SetWritePosMovesThePointerAtOnceOnlyWhenAsked) {
    for (const bool seek : {true, false}) {
        ASSERT_EQ(Writer().SetWritePos(kStart, true), RC_OK);
        const u32 seeks = CallCount(SystemCall::kSeek);
        ASSERT_EQ(Writer().SetWritePos(1060, seek), RC_OK);
        EXPECT_EQ(CallCount(SystemCall::kSeek), seeks + (seek ? 1 : 0));
        EXPECT_EQ(Writer().WritePos(), 1060);
        ASSERT_EQ(Append(BytesOf("x")), RC_OK);
        EXPECT_EQ(CallCount(SystemCall::kSeek), seeks + 1);
        EXPECT_EQ(FileBytes(1060, 1), BytesOf("x"));
    }
}

TEST_F(WriterFile, ReopenFileWritesIntoTheNewFile) {
    const std::string other = m_folder.File("other");
    WriteBytes(other, FileBytes());
    ASSERT_EQ(AppendRecord(1), RC_OK);
    ASSERT_EQ(Writer().ReopenFile(other, false), RC_OK);
    EXPECT_EQ(CallCount(SystemCall::kClose), 1U);
    ASSERT_EQ(Writer().SetWritePos(kStart, true), RC_OK);
    ASSERT_EQ(AppendRecord(9), RC_OK);
    EXPECT_EQ(Items(other), "C0 R9");
    EXPECT_EQ(Items(m_path), "C0 R1");
}

TEST_F(WriterFile, ReopenFileThatFailsKeepsTheOldFile) {
    Writer();
    const std::string missing = m_folder.File("missing");
    EXPECT_EQ(Writer().ReopenFile(missing, false), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf("Failed to create file '" + missing + "';" +
                           SysErr(SystemErrorKind::kNotFound)),
              RC_SYSTEM_ERROR)
        << m_log;
    EXPECT_FALSE(Exists(missing));
    ASSERT_EQ(AppendRecord(1), RC_OK);
    EXPECT_EQ(Items(m_path), "C0 R1");
}

TEST_F(WriterFile, ReopenFileAfterCloseFileWritesOn) {
    ASSERT_EQ(AppendRecord(1), RC_OK);
    Writer().CloseFile();
    Writer().CloseFile();
    EXPECT_EQ(CallCount(SystemCall::kClose), 1U);
    EXPECT_EQ(AppendRecord(2), RC_NO_WRITER);
    ASSERT_EQ(Writer().ReopenFile(m_path, false), RC_OK);
    ASSERT_EQ(AppendRecord(2), RC_OK);
    EXPECT_EQ(Items(m_path), "C0 R1 R2");
}

class WriterFactory : public WriterTest {
  protected:
    u32 ErrorOf(const std::string& connStr, StorageFileState* state) {
        try {
            CreateStorageWriter(connStr.c_str(), state);
        } catch (const K9eStorageException& e) {
            return e.Code();
        }
        return RC_OK;
    }
};

class AsyncFactory : public WriterFactory {
  protected:
    AsyncFactory() { m_calls.m_tasks.Open(); }

    // Makes and ends an asynchronous writer; everything that is logged.
    std::vector<LoggedMessage> MessagesOf(const std::string& connStr) {
        const std::unique_ptr<StorageWriter> writer =
            CreateStorageWriter(connStr.c_str(), &m_state);
        EXPECT_NE(dynamic_cast<AsyncStorageWriter*>(writer.get()), nullptr) << connStr;
        return m_log.Messages();
    }
    // These are the messages behind that of the mode.
    void ExpectSettings(const std::string& settings, const std::vector<std::string>& texts) {
        const std::vector<LoggedMessage> messages = MessagesOf("async_mode=yes" + settings);
        for (std::size_t n = 0; n < texts.size(); ++n) {
            const LoggedMessage expected{K9SYS_LOG_INFO, "k9eRepl-storage", texts.at(n), 0};
            EXPECT_EQ(messages.at(n + 1), expected) << m_log;
        }
        m_log.Clear();
    }
    void ExpectSizeRefused(const std::string& value) {
        const std::string connStr = "async_mode=yes;async_buffer_size=" + value + ";file=a";
        EXPECT_EQ(ErrorOf(connStr, &m_state), 23U);
        const LoggedMessage expected{K9SYS_LOG_ERROR, "k9eRepl-storage",
                                     "Value of 'async_buffer_size' (" + value +
                                         ") is wrong; valid range is 0-4096 (Kb);conn-str " +
                                         connStr,
                                     23};
        EXPECT_EQ(m_log.Messages().back(), expected) << m_log;
        EXPECT_EQ(CallCount(SystemCall::kCreateThread), 0U);
    }
    // Whether the buffer is allocated, with at least so many bytes.
    bool AllocatesBuffer(const std::string& kilobytes, u32 bytes) {
        FailAlloc(1, bytes);
        const u32 rc = ErrorOf("async_mode=yes;async_buffer_size=" + kilobytes, &m_state);
        StopFailing(SystemCall::kAlloc);
        return rc == RC_NO_MEMORY;
    }

    AsyncCalls m_calls;
    const std::string m_mode = "Use  async_mode 'yes'";
    const std::string m_noAffinity = "Use default async thread affinity 0x0";
    const std::string m_usualSize = "Use default async_buffer_size 16384 bytes";
};

TEST_F(WriterFactory, NoAndNothingGiveTheSynchronousWriterWhichReadsNoOtherSetting) {
    const std::string byDefault = "Use default async_mode 'no'";
    for (const auto& [settings, text] : {std::pair{"file=a", byDefault},
                                         {"async_mode=;file=a", byDefault},
                                         {"aux_affinity=x;async_buffer_size=-1", byDefault},
                                         {"file=a;async_mode=no", "Use  async_mode 'no'"},
                                         {"async_mode=No", "Use  async_mode 'No'"}}) {
        m_log.Clear();
        const std::unique_ptr<StorageWriter> writer = CreateStorageWriter(settings, &m_state);
        EXPECT_NE(dynamic_cast<SyncStorageWriter*>(writer.get()), nullptr);
        const LoggedMessage expected{K9SYS_LOG_INFO, "k9eRepl-storage", text, 0};
        EXPECT_EQ(m_log.Messages(), std::vector{expected}) << m_log;
    }
}

TEST_F(WriterFactory, RefusesAnyOtherWordWith23) {
    for (const std::string& word : {std::string("maybe"), std::string("TRUE"), std::string("none"),
                                    std::string("no "), std::string(100, 'y')}) {
        m_log.Clear();
        EXPECT_EQ(ErrorOf("async_mode=" + word, &m_state), 23U);
        const LoggedMessage expected{K9SYS_LOG_ERROR, "k9eRepl-storage",
                                     "Invalid 'async_mode' value (" + word.substr(0, 63) + ")", 23};
        EXPECT_EQ(m_log.Messages(), std::vector{expected}) << m_log;
    }
}

TEST_F(WriterFactory, PassesTheWritersOwnCodesOn) {
    EXPECT_EQ(ErrorOf("", nullptr), RC_INVALID_ARG);
    m_state.path = m_folder.File("missing");
    EXPECT_EQ(ErrorOf("", &m_state), RC_SYSTEM_ERROR);
    EXPECT_EQ(ErrorOf("async_mode=yes", nullptr), RC_INVALID_ARG);
    EXPECT_EQ(ErrorOf("async_mode=yes", &m_state), RC_SYSTEM_ERROR);
}

TEST_F(AsyncFactory, AModeOfYesInCapitalsSelectsTheAsynchronousWriter) {
    EXPECT_EQ(MessagesOf("async_mode=YES;file=a").front().text, "Use  async_mode 'YES'");
    m_log.Clear();
    EXPECT_EQ(MessagesOf("file=a;async_mode=Yes").front().text, "Use  async_mode 'Yes'");
}

TEST_F(AsyncFactory, HasDefaultsForTheOtherSettings) {
    m_calls.m_tasks.Shut();
    const auto writer = CreateStorageWriter("async_mode=yes", &m_state);
    EXPECT_EQ(m_log.Texts(), (std::vector{m_mode, m_noAffinity, m_usualSize}));
    m_calls.m_tasks.Open();
    EXPECT_TRUE(writer->Shutdown());
    EXPECT_EQ(m_calls.Affinities(), std::vector<u64>{});
    EXPECT_FALSE(AllocatesBuffer("", 16384));
}

TEST_F(AsyncFactory, ReadsTheAffinityAsASignedDecimalNumber) {
    ExpectSettings(";aux_affinity=;async_buffer_size=", {m_noAffinity, m_usualSize});
    ExpectSettings(";aux_affinity=3", {"Use  async thread affinity 0x3", m_usualSize});
    ExpectSettings(";aux_affinity=-1", {"Use  async thread affinity 0xFFFFFFFF", m_usualSize});
    EXPECT_EQ(m_calls.Affinities(), (std::vector<u64>{3, 0xFFFFFFFF}));
    ExpectSettings(";aux_affinity=0x3", {"Use  async thread affinity 0x0", m_usualSize});
}

TEST_F(AsyncFactory, ABufferSizeOf4096IsAcceptedAndUpTo16ItLiesInsideTheWriter) {
    ExpectSettings(";async_buffer_size=4096",
                   {m_noAffinity, "Use  async_buffer_size 4194304 bytes"});
    EXPECT_TRUE(AllocatesBuffer("4096", 4194304));
    EXPECT_FALSE(AllocatesBuffer("4096", 4194305));
    EXPECT_FALSE(AllocatesBuffer("16", 1024));
    EXPECT_TRUE(AllocatesBuffer("17", 17 * 1024));
}

TEST_F(AsyncFactory, ABufferSizeOutsideItsRangeIsRefusedWith23) {
    for (const char* size : {"4097", "-1", "4294967296", "-4294967296"}) {
        ExpectSizeRefused(size);
    }
}

TEST_F(AsyncFactory, ABufferSizeOf0DisablesTheBufferWithAWarning) {
    const std::string connStr = "async_mode=yes;async_buffer_size=0";
    const LoggedMessage expected{K9SYS_LOG_WARNING, "k9eRepl-storage",
                                 "Async write buffer disabled;conn-str " + connStr, 0};
    const std::vector<LoggedMessage> messages = MessagesOf(connStr);
    EXPECT_EQ(messages.at(2), expected) << m_log;
    EXPECT_EQ(m_log.CountContaining("async_buffer_size "), 0U);
}

}  // namespace
}  // namespace k9erepl::test
