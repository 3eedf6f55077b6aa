// The exception of constructors that cannot do their work.
#include "support/storage_exception.h"

#include <gtest/gtest.h>

namespace k9erepl::test {

TEST(K9eStorageException, CarriesItsCode) {
    try {
        throw K9eStorageException(23);
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), "K9eStorageException");
        EXPECT_EQ(dynamic_cast<const K9eStorageException&>(e).Code(), 23U);
    }
}

}  // namespace k9erepl::test
