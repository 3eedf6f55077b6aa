// Process atoms on POSIX systems: what else in the process and around it must not notice.
#include <dlfcn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iterator>

#include "files_fixture.h"
#include "platform/process.h"

namespace k9erepl::test {
namespace {

using platform::AddProcessAtom;
using platform::DeleteProcessAtom;
using platform::FindProcessAtom;
using platform::ProcessAtom;

// The exit status of the helper program (atom_probe.cpp).
int Probe(const std::string& command, const std::string& name) {
    const std::string line = std::string(ATOM_PROBE) + " " + command + " " + name;
    const int status = std::system(line.c_str());  // NOLINT(cert-env33-c,concurrency-mt-unsafe)
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

auto OpenDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

TEST(PosixProcessAtoms, AreNotSeenByOtherProcesses) {
    const ProcessAtom atom = AddProcessAtom("k9atom");
    EXPECT_EQ(Probe("find", "k9atom"), 0);
    DeleteProcessAtom(atom, "k9atom");
}

TEST(PosixProcessAtoms, AreGoneAfterExec) {
    EXPECT_EQ(Probe("find-itself", "k9atom"), 1);
    EXPECT_EQ(Probe("find-after-exec", "k9atom"), 0);
}

TEST(PosixProcessAtoms, TakeNoDescriptor) {
    const auto before = OpenDescriptors();
    const ProcessAtom atom = AddProcessAtom("k9atom");
    EXPECT_NE(FindProcessAtom("k9atom"), 0U);
    EXPECT_EQ(OpenDescriptors(), before);
    DeleteProcessAtom(atom, "k9atom");
}

class ScopedDescriptorLimit {
  public:
    explicit ScopedDescriptorLimit(rlim_t count) {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &m_before), 0);
        const rlimit limit = {.rlim_cur = count, .rlim_max = m_before.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    ~ScopedDescriptorLimit() { setrlimit(RLIMIT_NOFILE, &m_before); }
    ScopedDescriptorLimit(const ScopedDescriptorLimit&) = delete;
    ScopedDescriptorLimit& operator=(const ScopedDescriptorLimit&) = delete;

  private:
    rlimit m_before = {};
};

TEST(PosixProcessAtoms, AreNoneWhereTheSystemHasNoMore) {
    const ScopedDescriptorLimit limit(0);
    EXPECT_EQ(AddProcessAtom("k9atom"), 0U);
    EXPECT_EQ(FindProcessAtom("k9atom"), 0U);
}

TEST(PosixMessageBox, IsOneLineOnStandardError) {
    ::testing::internal::CaptureStderr();
    platform::ShowMessageBox("Something happened", "Caption");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Caption: Something happened\n");
}

TEST(PosixModuleHandles, LeadToTheModulesPath) {
    Dl_info info = {};
    ASSERT_NE(dladdr(platform::OwnModuleHandle(), &info), 0);
    EXPECT_EQ(std::filesystem::canonical(info.dli_fname),
              std::filesystem::canonical("/proc/self/exe"));
}

}  // namespace
}  // namespace k9erepl::test
