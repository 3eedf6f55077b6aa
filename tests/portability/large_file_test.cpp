// Storage files beyond 2 and 4 GiB: on a 32-bit build every offset that is cut to 32 bits shows
// here.
#include <string>

#include "portability/large_file_fixture.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

using portable::Client;
using Revs = std::vector<i64>;

constexpr i64 kClearRev = kRevAtFourGiB + 5;
constexpr i64 kDataEnd = OffsetOfLarge(kLastLargeRev + 1);

TEST_F(LargeStorage, IsLoadedWithoutAnIndexAndGetsOne) {
    { const Client client(ConnString()); }
    const LogCapture log;
    const Client client(ConnString());
    EXPECT_EQ(client.NextRev(), kLastLargeRev + 1);
    EXPECT_TRUE(log.Has("Index file seems to be valid (420 idx, sz 10485760)")) << log;
    const i64 start = OffsetOfLarge(kLastLargeRev - 1);
    EXPECT_TRUE(log.Has("Index test passed; start loading from offset " + std::to_string(start)))
        << log;
}

TEST_F(LargeStorage, IsLoadedFromBeyondFourGiBWithAnIndex) {
    WriteIndex();
    const LogCapture log;
    const Client client(ConnString());
    EXPECT_EQ(client.NextRev(), kLastLargeRev + 1);
    const i64 start = OffsetOfLarge(kLastLargeRev - 1);
    EXPECT_TRUE(log.Has("Index test passed; start loading from offset " + std::to_string(start)))
        << log;
}

TEST_F(LargeStorage, DeliversTheRecordsAcrossBothBorders) {
    WriteIndex();
    const Client client(ConnString());
    for (const i64 rev : {kRevAtTwoGiB, kRevAtFourGiB}) {
        EXPECT_EQ(ReadRevs(client, rev - 1, rev + 1), Revs({rev - 1, rev, rev + 1}));
        EXPECT_EQ(ReadRevs(client, rev, rev), Revs({rev}));
    }
}

TEST_F(LargeStorage, RaisesItsClearRevisionBeyondFourGiB) {
    WriteIndex();
    {
        Client client(ConnString());
        client.Clear(kClearRev, K9EREPL_CLEAR_LOGICAL);
    }
    EXPECT_EQ(FileSize(), kDataEnd + kCommitBlockSize);
    const Client client(ConnString());
    EXPECT_EQ(client.NextRev(), kLastLargeRev + 1);
    EXPECT_EQ(ReadRevs(client, 0, kClearRev + 1), Revs({kClearRev, kClearRev + 1}));
}

TEST_F(LargeStorage, IsSqueezedToWhatLiesBeyondFourGiB) {
    constexpr i64 kKept = 2;
    WriteIndex();
    {
        Client client(ConnString());
        client.Clear(kLastLargeRev - kKept + 1, K9EREPL_CLEAR_SQUEEZE);
    }
    EXPECT_EQ(FileSize(), kFirstItemOffset + kKept * kLargeItemSize + kCommitBlockSize);
    const Client client(ConnString());
    EXPECT_EQ(ReadRevs(client, 0, INT64_MAX), Revs({kLastLargeRev - 1, kLastLargeRev}));
}

// With each of the writers: the parameter says whether it is the asynchronous one.
class LargeStorageWriter : public LargeStorage, public testing::WithParamInterface<bool> {
  protected:
    std::string WithWriter(const std::string& more = "") const {
        return ConnString((GetParam() ? "async_mode=yes;" : "") + more);
    }
};

TEST_P(LargeStorageWriter, AppendsBeyondFourGiB) {
    WriteIndex();
    {
        Client client(WithWriter());
        client.Insert(1000);
        client.Insert(0);
    }
    EXPECT_EQ(FileSize(), kDataEnd + 2 * (kRecordHeadSize + kCommitBlockSize) + 1000);
    const Client client(WithWriter());
    const portable::PlannedRecords appended{{kLastLargeRev + 1, 1000}, {kLastLargeRev + 2, 0}};
    EXPECT_EQ(client.Records(kLastLargeRev + 1, INT64_MAX), appended);
    EXPECT_EQ(ReadRevs(client, kLastLargeRev, kLastLargeRev), Revs({kLastLargeRev}));
}

TEST_P(LargeStorageWriter, GrowsByStepsBeyondFourGiB) {
    WriteIndex();
    {
        Client client(WithWriter("file_size_delta=1;"));
        client.Insert(1000);
    }
    EXPECT_EQ(FileSize(), kDataEnd + 1024 * 1024);
    const Client client(WithWriter());
    EXPECT_EQ(client.NextRev(), kLastLargeRev + 2);
}

std::string WriterName(const testing::TestParamInfo<bool>& tested) {
    return tested.param ? "Asynchronous" : "Synchronous";
}

INSTANTIATE_TEST_SUITE_P(Both, LargeStorageWriter, testing::Bool(), WriterName);

}  // namespace
}  // namespace k9erepl::test
