// A reader that follows its writer, each in a thread of its own, on real files: whatever the writer
// does meanwhile, the reader sees whole transactions of one moment.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "engine/load_fixture.h"
#include "engine/reader_fixture.h"
#include "platform/file_names.h"

namespace k9erepl::test {
namespace {

constexpr u32 kTransactions = 400;
constexpr u32 kRecordsMost = 12;

// Transaction n has 1 + n % 12 records. Each says n, how many records its transaction has, and is
// filled with one letter of n.
std::string TextOf(u32 number) {
    std::string text = std::to_string(number) + " " + std::to_string(1 + number % kRecordsMost);
    text.resize(40 + number * 37 % 6000, static_cast<char>('a' + number % 26));
    return text;
}

// What is wrong with the records of a moment; nothing is right.
std::string WhatIsWrong(const SeenRecords& records, bool wholeFromTheBeginning) {
    std::size_t at = 0;
    while (at < records.size()) {
        const u32 number = static_cast<u32>(std::stoul(records[at].data));
        const std::string expected = TextOf(number);
        std::size_t same = at;
        while (same < records.size() && records[same].data == expected) {
            ++same;
        }
        const bool mayBeCut = at == 0 && !wholeFromTheBeginning;
        const std::size_t count = 1 + number % kRecordsMost;
        if (same == at || (same - at != count && !(mayBeCut && same - at < count))) {
            return "transaction " + std::to_string(number) + " has " + std::to_string(same - at);
        }
        at = same;
    }
    return "";
}

class LiveReading : public ::testing::Test {
  protected:
    void WriteTransaction(u32 number) {
        ASSERT_EQ(m_writer.Begin(), RC_OK);
        for (u32 i = 0; i <= number % kRecordsMost; ++i) {
            ASSERT_EQ(m_writer.Insert(TextOf(number)), RC_OK);
        }
        ASSERT_EQ(m_writer.Commit(), RC_OK);
    }
    // Writes everything, with `remove` between transactions, while a reader follows.
    void Follow(const std::function<void(u32 number)>& remove, bool wholeFromTheBeginning) {
        m_reader.Use(ReaderSettings(m_writer, kSettings));
        ASSERT_EQ(m_reader.TryOpen(), RC_OK);
        std::atomic<bool> ended{false};
        std::thread writing([&] {
            for (u32 number = 1; number <= kTransactions; ++number) {
                WriteTransaction(number);
                remove(number);
            }
            ended = true;
        });
        while (!ended && !HasFatalFailure()) {
            LoadAndLook(wholeFromTheBeginning);
        }
        writing.join();
        ASSERT_EQ(m_writer.WaitForWriter(), RC_OK);
        LoadAndLook(wholeFromTheBeginning);
        EXPECT_EQ(m_reader.Records(), m_writer.Records());
    }
    void LoadAndLook(bool wholeFromTheBeginning) {
        const u32 loaded = m_reader.TryLoad();
        // The writer was faster each time, or a squeeze has taken the name away for a moment.
        if (loaded == RC_WRONG_STATE ||
            (loaded == RC_SYSTEM_ERROR && !platform::kOpenFilesCanBeRenamed)) {
            return;
        }
        ASSERT_EQ(loaded, RC_OK);
        SeenRecords records;
        const u32 rc = m_reader.Enumerate(&records);
        ASSERT_TRUE(rc == RC_OK || rc == RC_WRONG_STATE) << rc;
        if (rc == RC_OK) {
            ASSERT_EQ(WhatIsWrong(records, wholeFromTheBeginning), "");
        }
    }

    static constexpr const char* kSettings =
        "flush_mode=PerTrans;flush_trans_num=1;block_size=65536;cache_type=Last2;";
    TestStorage m_writer{std::string(kSettings) + "file_size_delta=1;"};
    TestStorage m_reader{"", Start::kNothing};
};

TEST_F(LiveReading, FollowsAppends) {
    Follow([](u32) {}, true);
}

TEST_F(LiveReading, FollowsLogicalClears) {
    Follow(
        [this](u32 number) {
            if (number % 10 == 0) {
                ASSERT_EQ(m_writer.Clear(m_writer.NextRev() - 50, K9EREPL_CLEAR_LOGICAL), RC_OK);
            }
        },
        false);
}

TEST_F(LiveReading, FollowsSqueezes) {
    Follow(
        [this](u32 number) {
            if (number % 10 == 0) {
                const u32 mode = K9EREPL_CLEAR_SQUEEZE_BACKUP;
                ASSERT_EQ(m_writer.Clear(m_writer.NextRev() - 50, mode), RC_OK);
            }
        },
        false);
}

TEST_F(LiveReading, FollowsWhatStartsTheFileOver) {
    Follow(
        [this](u32 number) {
            if (number % 7 == 0) {
                ASSERT_EQ(number % 2 == 0 ? m_writer.Truncate() : m_writer.ClearAll(0), RC_OK);
            }
        },
        true);
}

}  // namespace
}  // namespace k9erepl::test
