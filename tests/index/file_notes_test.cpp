// The table of places in the file: what it finds, what it drops, and that it keeps its limit.
#include "index/file_notes.h"

#include <gtest/gtest.h>

namespace k9erepl::test {
namespace {

constexpr u32 kStep = FileNotes::kInterval;

class FileNotesTest : public ::testing::Test {
  protected:
    FileNotesTest() { m_notes.SetLimit(1024 * 1024); }

    // Notes of revisions key + 10, key + 20, ..., one interval apart.
    static std::vector<FileNote> Some(i64 key, u32 count) {
        std::vector<FileNote> notes;
        for (u32 i = 1; i <= count; ++i) {
            notes.push_back({key + 10 * i64{i}, i * kStep});
        }
        return notes;
    }
    // The distance of what is found; 0: nothing.
    u32 Found(i64 key, i64 rev) {
        const FileNote* const note = m_notes.Find(key, rev);
        return note == nullptr ? 0 : note->distance;
    }

    FileNotes m_notes;
};

TEST_F(FileNotesTest, FindsTheLastNoteThatIsNotAboveARevision) {
    m_notes.Put(100, Some(100, 3));
    EXPECT_EQ(Found(100, 109), 0U);
    EXPECT_EQ(Found(100, 110), kStep);
    EXPECT_EQ(Found(100, 119), kStep);
    EXPECT_EQ(Found(100, 130), 3 * kStep);
    EXPECT_EQ(Found(100, 5'000), 3 * kStep);
    EXPECT_EQ(Found(101, 5'000), 0U) << "another block";
}

TEST_F(FileNotesTest, TakesOnlyNotesThatLieAnIntervalBehindTheLast) {
    m_notes.Add(1, {10, kStep - 1});
    EXPECT_EQ(Found(1, 99), 0U);
    m_notes.Add(1, {11, kStep});
    m_notes.Add(1, {12, 2 * kStep - 1});
    m_notes.Add(1, {11, 3 * kStep});
    EXPECT_EQ(Found(1, 99), kStep);
    m_notes.Add(1, {12, 2 * kStep});
    EXPECT_EQ(Found(1, 99), 2 * kStep);
}

TEST_F(FileNotesTest, ForgetsBlocksByTheirKeys) {
    for (const i64 key : {100, 200, 300, 400, 500}) {
        m_notes.Put(key, Some(key, 2));
    }
    m_notes.ForgetBelow(200);
    m_notes.ForgetAbove(400);
    m_notes.Forget(300);
    EXPECT_EQ(Found(100, 999), 0U);
    EXPECT_EQ(Found(200, 999), 2 * kStep);
    EXPECT_EQ(Found(300, 999), 0U);
    EXPECT_EQ(Found(400, 999), 2 * kStep);
    EXPECT_EQ(Found(500, 999), 0U);
    m_notes.Put(200, {});
    EXPECT_EQ(Found(200, 999), 0U);
    m_notes.Clear();
    EXPECT_EQ(Found(400, 999), 0U);
    EXPECT_EQ(m_notes.Memory(), 0U);
}

TEST_F(FileNotesTest, CountsAllMemoryThatItGivesBack) {
    for (i64 key = 0; key < 50; ++key) {
        m_notes.Put(key, Some(key, 7));
        m_notes.Add(key, {10'000, 100 * kStep});
    }
    EXPECT_GT(m_notes.Memory(), 50U * 8 * sizeof(FileNote));
    for (i64 key = 0; key < 50; ++key) {
        m_notes.Forget(key);
    }
    EXPECT_EQ(m_notes.Memory(), 0U);
}

TEST_F(FileNotesTest, DropsTheBlocksThatWereNotUsedForTheLongestTime) {
    m_notes.SetLimit(4'000);
    for (i64 key = 1; key <= 100; ++key) {
        m_notes.Put(key, Some(key, 20));
        EXPECT_EQ(Found(1, 999), 20 * kStep) << "in use";
        EXPECT_LE(m_notes.Memory(), 4'000U);
    }
    EXPECT_EQ(Found(100, 999), 20 * kStep);
    EXPECT_EQ(Found(50, 999), 0U);
}

TEST_F(FileNotesTest, DropsABlockThatIsLargerThanTheLimit) {
    m_notes.SetLimit(1'000);
    m_notes.Put(1, Some(1, 500));
    EXPECT_EQ(Found(1, 9'999), 0U);
    EXPECT_EQ(m_notes.Memory(), 0U);
    for (u32 i = 1; i < 500; ++i) {
        m_notes.Add(2, {i64{i}, i * kStep});
        EXPECT_LE(m_notes.Memory(), 1'000U);
    }
}

TEST_F(FileNotesTest, KeepsNothingWithoutALimit) {
    m_notes.SetLimit(0);
    m_notes.Put(1, Some(1, 3));
    m_notes.Add(2, {1, kStep});
    EXPECT_EQ(Found(1, 999), 0U);
    EXPECT_EQ(Found(2, 999), 0U);
    EXPECT_EQ(m_notes.Memory(), 0U);
}

}  // namespace
}  // namespace k9erepl::test
