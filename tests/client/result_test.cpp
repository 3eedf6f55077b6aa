// Result<T>: the value or the failure, as a test or as an exception.
#include <gtest/gtest.h>

#include <k9erepl/result.hpp>
#include <memory>
#include <string>

namespace k9erepl::test {

namespace {

TEST(ResultOf, AValueIsASuccess) {
    Result<int> result = 7;
    EXPECT_TRUE(result.Ok());
    EXPECT_TRUE(result);
    EXPECT_EQ(result.Code(), RC_OK);
    EXPECT_STREQ(result.Text(), "success");
    EXPECT_EQ(result.Value(), 7);
    EXPECT_EQ(*result, 7);
}

TEST(ResultOf, AFailureHasCodeNameAndText) {
    const auto result = Result<int>::Failure(RC_TIMEOUT);
    EXPECT_FALSE(result.Ok());
    EXPECT_FALSE(result);
    EXPECT_EQ(result.Code(), RC_TIMEOUT);
    EXPECT_STREQ(result.Name(), "RC_TIMEOUT");
    EXPECT_STREQ(result.Text(), "a wait for the writer or a thread ran out");
}

TEST(ResultOf, ValueThrowsTheFailure) {
    try {
        Result<int>::Failure(RC_NO_MEMORY).Value();
        FAIL() << "nothing was thrown";
    } catch (const StorageError& e) {
        EXPECT_EQ(e.Code(), RC_NO_MEMORY);
        EXPECT_STREQ(e.what(), "RC_NO_MEMORY (1): an allocation failed");
    }
}

TEST(ResultOf, AValueThatCanOnlyBeMovedIsMovedOut) {
    Result<std::unique_ptr<int>> result = std::make_unique<int>(3);
    const std::unique_ptr<int> value = std::move(result).Value();
    EXPECT_EQ(*value, 3);
}

TEST(ResultOf, NothingIsASuccessOrThrows) {
    EXPECT_TRUE(Result<void>(RC_OK));
    EXPECT_NO_THROW(Result<void>(RC_OK).Value());
    EXPECT_THROW(Result<void>(RC_FILE_CORRUPT).Value(), StorageError);
}

}  // namespace

}  // namespace k9erepl::test
