// The family that tells damage in the middle of a storage file from a torn end: what a crash
// leaves, also that of a run whose commit block survived, must not be reported; damage with commits
// behind it must be, and everything behind it kept beside the file.
#include <algorithm>

#include "reliability/crash_images.h"
#include "reliability/family.h"
#include "reliability/hostile_opening.h"
#include "reliability/steady_calls.h"
#include "reliability/workload.h"

namespace k9erepl::reliability {

namespace {

constexpr u32 kCasesOfAGroup = 50;
constexpr std::size_t kPoints = 2000;
constexpr u32 kSecondStamp = 0x20000000;

class MiddleDamage {
  public:
    MiddleDamage(GroupRun& run, MemoryDisk& disk, const History& history, u64 seed)
        : m_run(run), m_disk(disk), m_history(history), m_random(seed) {}

    Problem Run() {
        switch (m_random.Below(6)) {
            case 0:
                return ExpectNoReport(AnyCrash(), "torn end");
            case 1:
                return TornAgain();
            case 2:
                return GhostCommit();
            default:
                return Damage();
        }
    }

  private:
    // What a case answers that was told rightly or wrongly.
    Problem Judge(bool right, const std::string& what, const std::string& problem) {
        m_run.Count((right ? "right: " : "wrong: ") + what);
        return right ? "" : problem;
    }

    // --- Not to be reported

    DiskImage AnyCrash() {
        const auto points = CrashPointsOf(m_history.changes, kPoints, m_random.Next());
        return ImageMaker(m_history.base, m_history.changes).At(m_random.AnyOf(points));
    }

    // The session that came after a crash was killed, too.
    Problem TornAgain() {
        DiskImage image = AnyCrash();
        reliability::Judge any = [](const Seen& /*seen*/) { return ""; };
        const Problem problem =
            CrashAgain(m_disk, m_history, kSecondStamp, 1, m_random, &image, &any);
        return problem.empty() ? ExpectNoReport(image, "torn end again") : problem;
    }

    // The last flush was torn or undone, and its commit block survived: any bytes in front of that
    // block, or in it, are not there.
    Problem GhostCommit() {
        HostileFiles files = FilesOf(m_history.Last());
        const SlowScan scan = ScanSlowly(files.storage);
        if (scan.validItems < 2) {
            return ExpectNoReport(ImageOf(files), "sound");
        }
        std::size_t begin = scan.items[0].at + kCommitSize;
        for (std::size_t i = 1; i + 1 < scan.validItems; ++i) {
            const SlowItem& item = scan.items[i];
            begin = item.kind == ItemKind::kCommit ? item.at + item.size : begin;
        }
        Spoil(files.storage, begin, scan.validEnd);
        return ExpectNoReport(ImageOf(files), "ghost commit");
    }

    Problem ExpectNoReport(const DiskImage& image, const char* what) {
        m_run.Keep(image, {}, 0);
        m_disk.Mount(image);
        const Opening opening = OpenAndRead(m_history.ConnString());
        const bool right = KeptTail() == nullptr;
        return Judge(right, what,
                     std::string(what) + " is told as damage; " + Describe(opening.seen));
    }

    // --- To be reported

    Problem Damage() {
        HostileFiles files = FilesOf(m_history.Last());
        files.index.clear();  // it would lead past most damage
        const SlowScan before = ScanSlowly(files.storage);
        const std::optional<std::size_t> end = EndOfDamage(before);
        if (!end) {
            m_run.Count("too few commits to damage");
            return "";
        }
        Spoil(files.storage, kHeaderSize + kCommitSize, *end);
        const SlowScan scan = ScanSlowly(files.storage);
        m_run.Keep(ImageOf(files), {}, 0);
        if (scan.IsRefused() || scan.validEnd == before.validEnd || StopsAtZeros(files, scan)) {
            m_run.Count(scan.IsRefused()                   ? "refused"
                        : scan.validEnd == before.validEnd ? "data only, not seen"
                                                           : "zeros, not told from a torn end");
            return "";
        }
        m_disk.Mount(ImageOf(files));
        OpenAndRead(m_history.ConnString());
        const FileBytes* const kept = KeptTail();
        const bool right = kept != nullptr && kept->Whole() == files.storage.substr(scan.validEnd);
        return Judge(right, "damage",
                     "damage before " + std::to_string(*end) + ", stop at " +
                         std::to_string(scan.stopAt) + " (" + scan.stop +
                         "): " + (kept == nullptr ? "not reported" : "another tail kept"));
    }

    // The place behind which two whole commit blocks lie, or more.
    std::optional<std::size_t> EndOfDamage(const SlowScan& scan) {
        std::vector<std::size_t> commits;
        for (std::size_t i = 1; i < scan.validItems; ++i) {
            if (scan.items[i].kind == ItemKind::kCommit) {
                commits.push_back(scan.items[i].at);
            }
        }
        if (commits.size() < 3) {
            return std::nullopt;
        }
        return commits[m_random.Below(static_cast<u32>(commits.size() - 2)) + 1] - 1;
    }

    // A bit, a byte, a sector or a page of what lies from `begin` to `end` is not what it was.
    void Spoil(std::string& bytes, std::size_t begin, std::size_t end) {
        const auto unit = m_random.OneOf<std::size_t>({1, 1, 4, 512, 4096});
        const std::size_t place =
            begin + m_random.Below(static_cast<u32>(std::max<std::size_t>(end - begin, 1)));
        const std::size_t from = std::max(begin, place / unit * unit);
        const std::size_t to = std::min(end, from / unit * unit + unit);
        const bool zeros = unit > 1 && m_random.OneIn(3);
        for (std::size_t i = from; i < to; ++i) {
            const auto changed = static_cast<char>(bytes[i] ^ (1 + m_random.Below(255)));
            bytes[i] = zeros ? '\0' : changed;
        }
    }

    static bool StopsAtZeros(const HostileFiles& files, const SlowScan& scan) {
        return scan.stopAt + 4 > files.storage.size() ||
               NumberAt(files.storage, scan.stopAt, 4) == 0;
    }

    const FileBytes* KeptTail() {
        m_after = m_disk.Image();
        return m_after.Find(StoragePath() + ".damaged-tail");
    }

    GroupRun& m_run;
    MemoryDisk& m_disk;
    const History& m_history;
    model::Random m_random;
    DiskImage m_after;
};

void RunGroup(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    const WorkloadPlan plan{.operations = 40,
                            .async = run.Number() % 4 == 1,
                            .forceFlush = run.Number() % 2 == 0,
                            .flushEvery = 1,
                            .removes = run.Number() % 3 == 0,
                            .moreSettings = ""};
    const History history = MakeHistory(disk, plan, run.Seed());
    run.Case(0, [&] { return history.problem; });
    for (u64 number = 1; number <= kCasesOfAGroup; ++number) {
        run.Case(number,
                 [&] { return MiddleDamage(run, disk, history, Mix(run.Seed(), number)).Run(); });
    }
}

const RegisteredFamily kFamily({.name = "middle-damage",
                                .title = "damage in the middle told from a torn end",
                                .cases = 2000,
                                .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
