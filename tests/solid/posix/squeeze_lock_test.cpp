// The writer's lock while a squeeze changes what the path leads to, where a lock stays with a file
// that gets another name.
#include <filesystem>
#include <functional>
#include <utility>

#include "platform/system_error.h"
#include "solid/squeeze_fixture.h"

namespace k9erepl::test {
namespace {

using platform::File;
using platform::LockResult;

// While it lives, `look` is called before and after every call that may let go of a lock or change
// what a name leads to.
class Watch {
  public:
    explicit Watch(std::function<void()> look) : m_saved(platform::TheSystemCalls()) {
        g_look = std::move(look);
        g_saved = &m_saved;
        platform::SystemCalls& calls = platform::TheSystemCalls();
        calls.closeFile = [](platform::NativeFile file) {
            return Looked([=] { return g_saved->closeFile(file); });
        };
        calls.unlockFile = [](platform::NativeFile file) {
            return Looked([=] { return g_saved->unlockFile(file); });
        };
        calls.linkFile = [](const char* from, const char* to) {
            return Looked([=] { return g_saved->linkFile(from, to); });
        };
        calls.renameFile = [](const char* from, const char* to) {
            return Looked([=] { return g_saved->renameFile(from, to); });
        };
    }
    ~Watch() { platform::TheSystemCalls() = m_saved; }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

  private:
    template <typename Call>
    static bool Looked(Call call) {
        if (std::exchange(g_looking, true)) {
            return call();  // one that `look` itself has made
        }
        g_look();
        const bool result = call();
        const platform::SystemError error = platform::LastSystemError();
        g_look();
        platform::SetLastSystemError(error);
        g_looking = false;
        return result;
    }

    static inline std::function<void()> g_look;
    static inline const platform::SystemCalls* g_saved = nullptr;
    static inline bool g_looking = false;
    const platform::SystemCalls m_saved;
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
    static std::string path;
    path = Path();
    const platform::SystemCalls saved = platform::TheSystemCalls();
    platform::TheSystemCalls().lockFile = [](platform::NativeFile file) {
        std::error_code none;
        std::filesystem::rename(path + ".temporary", path, none);
        return platform::NativeSystemCalls().lockFile(file);
    };
    EXPECT_EQ(TryOpen(), RC_OK) << m_log;
    platform::TheSystemCalls() = saved;
    EXPECT_EQ(Scanned(), TwoTransactionsItems());
    EXPECT_EQ(TryAnew(), LockResult::kHeldByAnother);
}

}  // namespace
}  // namespace k9erepl::test
