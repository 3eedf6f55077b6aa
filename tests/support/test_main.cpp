// The entry of every test program.
#include <gtest/gtest.h>

#include "support/death_notice.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    k9erepl::test::NameTheTestThatDies();
    return RUN_ALL_TESTS();
}
