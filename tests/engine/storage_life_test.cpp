// The life of a storage: opening, closing, the last flush. Part of engine_tests.
#include <gtest/gtest.h>

#include "engine/storage_fixture.h"

namespace k9erepl::test {

TEST(StorageLife, ServesWhatWasInsertedBeforeItWasClosed) {
    TestStorage storage;
    storage.InsertCommitted({"one", "two"});
    storage.Reopen();
    EXPECT_EQ(storage.Records(), SeenRecords({{1, 0, "one"}, {2, 0, "two"}}));
    EXPECT_EQ(storage.NextRev(), 3);
}

}  // namespace k9erepl::test
