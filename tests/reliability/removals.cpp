// The family of removals: a crash before, inside and after every call of every clear, squeeze and
// truncation. The path leads to the old content until the new one is written, and to that from then
// on; a backup, as soon as it has its name, holds the old content; the removal can be repeated once
// the unfinished copy is gone, and is refused while it is there.
#include <k9erepl/storage.h>

#include <algorithm>

#include "model/storage_client.h"
#include "reliability/crash_images.h"
#include "reliability/family.h"
#include "reliability/steady_calls.h"
#include "reliability/workload.h"

namespace k9erepl::reliability {

namespace {

constexpr std::size_t kPoints = 230;
constexpr u32 kFirstStamp = 0x20000000;

RemovalPlan PlanOf(u64 number) {
    RemovalPlan plan;
    plan.kind = static_cast<RemovalKind>(number % kRemovalKinds);
    number /= kRemovalKinds;
    plan.async = number % 2 == 1;
    plan.hardLinks = number / 2 % 2 == 0;
    plan.forceFlush = number / 4 % 2 == 1;
    return plan;
}

void MoveName(DiskImage& image, const std::string& from, const std::string& to) {
    Change change;
    change.kind = ChangeKind::kRename;
    change.file = *image.NumberOf(from);
    change.name = from;
    change.to = to;
    image.Apply(change);
}

class Crashes {
  public:
    Crashes(GroupRun& run, MemoryDisk& disk, const RemovalPlan& plan)
        : m_run(run), m_disk(disk), m_plan(plan) {}

    void All() {
        m_removal = MakeRemoval(m_disk, m_plan, m_run.Seed());
        const History& history = m_removal.history;
        m_run.Case(0, [&] { return history.problem; });
        FindSteps();
        ImageMaker maker(history.base, history.changes);
        u64 number = 0;
        u64 withoutPath = 0;
        for (const CrashPoint& point : CrashPointsOf(history.changes, kPoints, m_run.Seed())) {
            const DiskImage image = maker.At(point);
            withoutPath += image.Find(StoragePath()) == nullptr ? 1 : 0;
            m_run.Keep(image, history.changes, point.changes);
            m_run.Case(++number, [&] { return Crash(image, point, number); });
        }
        m_run.Case(++number, [&] { return LeavesItsBackup(); });
        m_run.Case(++number, [&] {
            const u64 expected = m_removal.makesBackup && !m_plan.hardLinks ? 1 : 0;
            return withoutPath == expected ? "" : std::to_string(withoutPath) + " without a path";
        });
    }

  private:
    // The steps at which the content at the path changes.
    void FindSteps() {
        const Changes& changes = m_removal.history.changes;
        const auto stepOf = [&](ChangeKind kind) {
            const auto found =
                std::find_if(changes.begin(), changes.end(), [&](const Change& change) {
                    return change.kind == kind &&
                           (kind == ChangeKind::kRename
                                ? change.to == StoragePath()
                                : change.file == m_removal.history.base.NumberOf(StoragePath()));
                });
            return static_cast<std::size_t>(found - changes.begin());
        };
        m_written = stepOf(ChangeKind::kWrite);
        m_undone = m_removal.makesBackup ? stepOf(ChangeKind::kSetEnd) : changes.size();
        m_replaced = stepOf(ChangeKind::kRename);
    }

    // A backup is made of the old content: the clear revision is taken back for it.
    StateRange RangeAt(const CrashPoint& point) const {
        const StateRange range = m_removal.history.AfterKill(point.changes, point.cut > 0);
        if (range.low > 0 || range.high != 1 || (point.changes == m_written && point.cut > 0)) {
            return range;
        }
        const bool isUndone = m_undone < point.changes && point.changes <= m_replaced;
        return m_written < point.changes && !isUndone ? StateRange{1, 1} : StateRange{0, 0};
    }

    Problem Crash(const DiskImage& image, const CrashPoint& point, u64 number) {
        const StateRange range = RangeAt(point);
        if (image.Find(StoragePath()) == nullptr) {
            return m_plan.hardLinks ? "no file at the path" : NoPath(image, number);
        }
        if (Problem problem = LookAtBackup(image); !problem.empty()) {
            return "backup: " + problem;
        }
        if (m_plan.kind != RemovalKind::kTruncate && number % 2 == 0) {
            if (Problem problem = RemoveAgain(image); !problem.empty()) {
                return "the removal again: " + problem;
            }
        }
        return Examined(image, range, number);
    }

    Problem Examined(const DiskImage& image, StateRange range, u64 number) {
        return Examine(m_disk, image, m_removal.history, number,
                       ByStates(m_removal.history, range));
    }

    // Without hard links there is such a moment. Opening refuses and makes nothing; each of the two
    // files, renamed as the manual says, is the storage: the old one, or the new one.
    Problem NoPath(const DiskImage& image, u64 number) {
        m_run.Count("moments without a path");
        m_disk.Mount(image);
        model::StorageClient client;
        const u32 rc = client.Open(m_removal.history.ConnString());
        if (rc != RC_SYSTEM_ERROR || m_disk.Image().Hash() != image.Hash()) {
            return "opening nothing answers " + std::to_string(rc);
        }
        for (const std::string& name : {BackupPath(), TemporaryPath()}) {
            const std::size_t state = name == BackupPath() ? 0 : 1;
            if (image.Find(name) == nullptr) {
                return "there is no " + name;
            }
            DiskImage repaired = image;
            MoveName(repaired, name, StoragePath());
            if (Problem problem = Examined(repaired, {state, state}, number); !problem.empty()) {
                return name + ": " + problem;
            }
        }
        return "";
    }

    // What it may hold: what the older one held, or what the storage held before the removal.
    Problem LookAtBackup(const DiskImage& image) {
        if (image.Find(BackupPath()) == nullptr) {
            return "";
        }
        // Until the rename it may be the storage itself.
        m_run.Count("backups opened");
        SteadyCalls::SetStamp(kFirstStamp);
        m_disk.Mount(image);
        Seen seen;
        const Problem problem =
            Visit(m_removal.history.settings.ConnString(BackupPath()), {}, &seen);
        return !problem.empty() || m_removal.olderBackup == seen
                   ? problem
                   : JudgeByStates(m_removal.history, {0, 0}, seen);
    }

    u32 Squeeze(const DiskImage& image) {
        SteadyCalls::SetStamp(kFirstStamp);
        m_disk.Mount(image);
        model::StorageClient client;
        u32 rc = client.Open(m_removal.history.ConnString());
        rc = rc == RC_OK ? K9eReplStorageLoad(client.Handle()) : rc;
        return rc == RC_OK ? K9eReplStorageClearOldRev(client.Handle(), m_removal.clearRev,
                                                       K9EREPL_CLEAR_SQUEEZE_BACKUP)
                           : rc;
    }

    // Once the unfinished copy is away, as the manual tells to do.
    Problem RemoveAgain(DiskImage image) {
        const bool isLeft = image.Find(TemporaryPath()) != nullptr;
        if (isLeft) {
            const u32 rc = Squeeze(image);
            const bool hadNothingToDo =
                rc == RC_OK && m_disk.Image().Find(TemporaryPath()) != nullptr &&
                m_disk.Image().Find(StoragePath())->Hash() == image.Find(StoragePath())->Hash();
            if (rc != RC_SYSTEM_ERROR && !hadNothingToDo) {
                return "beside a copy: answers " + std::to_string(rc);
            }
            MoveName(image, TemporaryPath(), std::string(kFolder) + "away");
        }
        const u32 rc = Squeeze(image);
        const DiskImage left = m_disk.Image();
        if (rc != RC_OK || left.Find(TemporaryPath()) != nullptr) {
            return "answers " + std::to_string(rc);
        }
        m_run.Count(isLeft ? "removals again beside a copy" : "removals again");
        return Shows(left);
    }

    // Nothing below the clear revision, and above it what was there.
    Problem Shows(const DiskImage& image) {
        m_disk.Mount(image);
        Seen seen;
        if (Problem problem = Visit(m_removal.history.ConnString(), {}, &seen); !problem.empty()) {
            return problem;
        }
        for (const model::Content& state : m_removal.history.states) {
            const auto kept = state.records.lower_bound(m_removal.clearRev);
            if (seen.records == model::Records(kept, state.records.end())) {
                return "";
            }
        }
        return "content is none that it had: " + Describe(seen);
    }

    Problem LeavesItsBackup() {
        const DiskImage image = m_removal.history.Last();
        if (image.Find(TemporaryPath()) != nullptr) {
            return "the temporary file is left";
        }
        if (!m_removal.makesBackup) {
            return "";
        }
        if (image.Find(BackupPath()) == nullptr) {
            return "there is no backup";
        }
        m_removal.olderBackup.reset();
        return LookAtBackup(image);
    }

    GroupRun& m_run;
    MemoryDisk& m_disk;
    const RemovalPlan m_plan;
    RemovalHistory m_removal;
    // Places in its changes; their number when there is no such change.
    std::size_t m_written = 0;   // the first bytes at the path that tell the new content
    std::size_t m_undone = 0;    // takes them back, for the backup
    std::size_t m_replaced = 0;  // the copy comes to the path
};

void RunGroup(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    Crashes(run, disk, PlanOf(run.Number())).All();
}

const RegisteredFamily kFamily(
    {.name = "removals",
     .title = "squeeze, truncation, clear: before, inside, after every call",
     .cases = 13000,
     .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
