// The writer's lock while a squeeze changes what the path leads to, where a lock stays with a file
// that gets another name.
#include <atomic>
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

// Calls a function before and after every call that may let go of a lock or change what a name
// leads to.
class Watch : CallLayer<Watch> {
  public:
    Watch() {
        Wrap(CallEntries<&CallTable::closeFile, &CallTable::unlockFile, &CallTable::linkFile,
                         &CallTable::renameFile>());
    }
    // From now on until End, while only the caller's thread makes such calls.
    void Begin(std::function<void()> look) {
        m_look = std::move(look);
        m_active = true;
    }
    void End() { m_active = false; }

  private:
    friend CallLayer;
    template <typename Call>
    static bool Around(Call call) {
        if (!TheLayer().m_active || std::exchange(TheLayer().m_looking, true)) {
            return call();  // the second: one that m_look itself has made
        }
        TheLayer().m_look();
        const bool result = call();
        const platform::SystemError error = platform::LastSystemError();
        TheLayer().m_look();
        platform::SetLastSystemError(error);
        TheLayer().m_looking = false;
        return result;
    }

    std::function<void()> m_look;
    std::atomic<bool> m_active{false};
    bool m_looking = false;
};

// Gives a file another name whenever somebody is about to ask for a lock.
class ReplacedBeforeLocking : CallLayer<ReplacedBeforeLocking> {
  public:
    ReplacedBeforeLocking() { Take<&CallTable::lockFile, &ReplacedBeforeLocking::Lock>(); }
    // From now on until End, the file `from` takes the name `to`.
    void Begin(std::string from, std::string to) {
        m_from = std::move(from);
        m_to = std::move(to);
        m_active = true;
    }
    void End() { m_active = false; }

  private:
    friend CallLayer;
    bool Lock(platform::NativeFile file) {
        if (m_active) {
            std::error_code none;
            std::filesystem::rename(m_from, m_to, none);
        }
        return Below().lockFile(file);
    }

    std::string m_from;
    std::string m_to;
    std::atomic<bool> m_active{false};
};

class SqueezeLock : public SqueezeTest {
  protected:
    ~SqueezeLock() override { m_solid.Close(); }
    LockResult TryAnew() const {
        File other;
        return other.Open(Path().c_str(), {}) ? other.TryLock() : LockResult::kFailed;
    }

    // The layers begin and end while no thread of a storage runs.
    const bool m_closed = (m_solid.Close(), true);
    Watch m_watch;
    ReplacedBeforeLocking m_replaced;
};

TEST_F(SqueezeLock, AtEveryMomentTheNameLeadsToALockedFile) {
    u32 looks = 0;
    for (const bool keepBackup : {true, false, true}) {
        OpenScanned(ThreeTransactions());
        m_watch.Begin([&] {
            ++looks;
            EXPECT_EQ(TryAnew(), LockResult::kHeldByAnother) << looks;
        });
        EXPECT_EQ(Squeeze(keepBackup), RC_OK) << m_log;
        m_watch.End();
    }
    EXPECT_GT(looks, 20U);
}

// The file that the second writer opens is replaced before it asks for the lock of it.
TEST_F(SqueezeLock, AWriterThatOpenedTheOldFileGetsTheLockOfTheNewOne) {
    m_solid.Close();
    ThreeTransactions().Save(Path());
    TwoTransactions().Save(Temporary());
    m_replaced.Begin(Temporary(), Path());
    EXPECT_EQ(TryOpen(), RC_OK) << m_log;
    m_replaced.End();
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
        m_replaced.Begin(Temporary(), Path());
        const std::string conn = Conn();
        EXPECT_EQ(deletes ? DeleteStorage(conn.c_str())
                          : CreateStorageFile(conn.c_str(), K9EREPL_CREATE_REPLACE),
                  RC_SYSTEM_ERROR);
        m_replaced.End();
        EXPECT_EQ(ReadBytes(Path()), TwoTransactions().Bytes());
    }
}

}  // namespace
}  // namespace k9erepl::test
