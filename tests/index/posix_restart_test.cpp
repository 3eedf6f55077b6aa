// Starting again while a thread that was given up has the file open: Windows lets nobody write to
// the file then.
#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include "index/index_fixture.h"

namespace k9erepl::test {

using IndexObjectRestart = IndexObjectTest;

TEST_F(IndexObjectRestart, NeedsNoEndOfAThreadThatCannotBeEnded) {
    MakeUnending();
    ASSERT_EQ(m_index->Start(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_index->Start(), RC_OK);
}

}  // namespace k9erepl::test
