// The operating system's error codes and their names.
#include "platform/system_error.h"

#include <gtest/gtest.h>

#include <set>

namespace k9erepl::test {
namespace {

using platform::SystemErrorKind;

TEST(SystemErrors, EachKindHasACodeOfItsOwn) {
    std::set<platform::SystemError> codes;
    for (const SystemErrorKind kind :
         {SystemErrorKind::kNoSpace, SystemErrorKind::kInputOutput, SystemErrorKind::kAccessDenied,
          SystemErrorKind::kInterrupted, SystemErrorKind::kFileTooBig,
          SystemErrorKind::kOutOfMemory, SystemErrorKind::kCrossVolume, SystemErrorKind::kNotFound,
          SystemErrorKind::kAlreadyExists, SystemErrorKind::kNotARegularFile,
          SystemErrorKind::kNotSupported, SystemErrorKind::kLocked,
          SystemErrorKind::kInvalidHandle}) {
        const platform::SystemError code = platform::SystemErrorOf(kind);
        EXPECT_NE(code, 0U);
        EXPECT_TRUE(codes.insert(code).second) << code;
    }
}

TEST(SystemErrors, TheLastOneIsKept) {
    platform::SetLastSystemError(platform::SystemErrorOf(SystemErrorKind::kNoSpace));
    EXPECT_TRUE(platform::LastSystemErrorIs(SystemErrorKind::kNoSpace));
    EXPECT_FALSE(platform::LastSystemErrorIs(SystemErrorKind::kInputOutput));
}

}  // namespace
}  // namespace k9erepl::test
