// The writer's lock while a squeeze changes what the path leads to, where a lock stays with a file
// that gets another name.
#include <filesystem>
#include <functional>
#include <utility>

#include "platform/system_error.h"
#include "solid/squeeze_fixture.h"
#include "solid/storage_file_admin.h"
#include "support/call_layer.h"

namespace k9erepl::test {
namespace {

using platform::File;
using platform::LockResult;

// While it lives, `look` is called before and after every call that may let go of a lock or change
// what a name leads to.
class Watch : CallLayer<Watch> {
  public:
    explicit Watch(std::function<void()> look) : m_look(std::move(look)) {
        Wrap(CallEntries<&CallTable::closeFile, &CallTable::unlockFile, &CallTable::linkFile,
                         &CallTable::renameFile>());
    }

  private:
    friend CallLayer;
    template <typename Call>
    static bool Around(Call call) {
        if (std::exchange(TheLayer().m_looking, true)) {
            return call();  // one that `look` itself has made
        }
        TheLayer().m_look();
        const bool result = call();
        const platform::SystemError error = platform::LastSystemError();
        TheLayer().m_look();
        platform::SetLastSystemError(error);
        TheLayer().m_looking = false;
        return result;
    }

    const std::function<void()> m_look;
    bool m_looking = false;
};

// While it lives, the file `from` takes the name `to` whenever somebody is about to ask for a lock.
class ReplacedBeforeLocking : CallLayer<ReplacedBeforeLocking> {
  public:
    ReplacedBeforeLocking(std::string from, std::string to)
        : m_from(std::move(from)), m_to(std::move(to)) {
        Take<&CallTable::lockFile, &ReplacedBeforeLocking::Lock>();
    }

  private:
    friend CallLayer;
    bool Lock(platform::NativeFile file) {
        std::error_code none;
        std::filesystem::rename(m_from, m_to, none);
        return Below().lockFile(file);
    }

    const std::string m_from;
    const std::string m_to;
};

class SqueezeLock : public SqueezeTest {
  protected:
    LockResult TryAnew() const {
        File other;
        return other.Open(Path().c_str(), {}) ? other.TryLock() : LockResult::kFailed;
    }
};

TEST_F(SqueezeLock, AtEveryMomentTheNameLeadsToALockedFile) {
    u32 looks = 0;
    for (const bool keepBackup : {true, false, true}) {
        OpenScanned(ThreeTransactions());
        const Watch watch([&] {
            ++looks;
            EXPECT_EQ(TryAnew(), LockResult::kHeldByAnother) << looks;
        });
        EXPECT_EQ(Squeeze(keepBackup), RC_OK) << m_log;
    }
    EXPECT_GT(looks, 20U);
}

// The file that the second writer opens is replaced before it asks for the lock of it.
TEST_F(SqueezeLock, AWriterThatOpenedTheOldFileGetsTheLockOfTheNewOne) {
    m_solid.Close();
    ThreeTransactions().Save(Path());
    TwoTransactions().Save(Temporary());
    {
        const ReplacedBeforeLocking replaced(Temporary(), Path());
        EXPECT_EQ(TryOpen(), RC_OK) << m_log;
    }
    EXPECT_EQ(Scanned(), TwoTransactionsItems());
    EXPECT_EQ(TryAnew(), LockResult::kHeldByAnother);
}

// The writer squeezes between the other side's opening and its asking for the lock.
TEST_F(SqueezeLock, WhoeverOpenedTheOldFileNeitherDeletesNorEmptiesTheNewOne) {
    for (const bool deletes : {true, false}) {
        m_solid.Close();
        ThreeTransactions().Save(Path());
        TwoTransactions().Save(Temporary());
        File writer;
        ASSERT_TRUE(writer.Open(Temporary().c_str(), {}));
        ASSERT_EQ(writer.TryLock(), LockResult::kTaken);
        const ReplacedBeforeLocking replaced(Temporary(), Path());
        const std::string conn = Conn();
        EXPECT_EQ(
            deletes ? DeleteStorage(conn.c_str()) : CreateStorageFile(conn.c_str(), kCreateReplace),
            RC_SYSTEM_ERROR);
        EXPECT_EQ(ReadBytes(Path()), TwoTransactions().Bytes());
    }
}

}  // namespace
}  // namespace k9erepl::test
