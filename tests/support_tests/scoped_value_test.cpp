// A value that holds until the end of a scope.
#include "support/scoped_value.h"

#include <gtest/gtest.h>

namespace k9erepl::test {

TEST(ScopedValue, GivesBackWhatItFound) {
    int depth = 3;
    {
        const ScopedValue outer(depth, depth + 1);
        EXPECT_EQ(depth, 4);
        {
            const ScopedValue inner(depth, depth + 1);
            EXPECT_EQ(depth, 5);
        }
        EXPECT_EQ(depth, 4);
        depth = 9;
    }
    EXPECT_EQ(depth, 3) << "whatever it was changed to meanwhile";
}

TEST(ScopedValue, GivesItBackWhenTheScopeThrows) {
    bool raised = false;
    try {
        const ScopedValue raising(raised, true);
        EXPECT_TRUE(raised);
        throw 1;
    } catch (int) {
        EXPECT_FALSE(raised);
    }
}

}  // namespace k9erepl::test
