// Which states a moment allows, openings and comparisons; see the header.
#include "reliability/oracle.h"

#include <algorithm>

#include "engine/storage_fixture.h"
#include "model/operation.h"
#include "model/storage_client.h"
#include "reliability/crash_images.h"
#include "reliability/steady_calls.h"

namespace k9erepl::reliability {

namespace {

// The last mark that stands at or before a moment.
const Mark& MarkBefore(const std::vector<Mark>& marks, std::size_t changes) {
    const auto behind =
        std::upper_bound(marks.begin(), marks.end(), changes,
                         [](std::size_t at, const Mark& mark) { return at < mark.changes; });
    return *(behind - 1);
}

}  // namespace

std::string StoragePath() {
    return std::string(kFolder) + "storage.edb";
}

std::string History::ConnString() const {
    return moreSettings + settings.ConnString(StoragePath());
}

DiskImage History::Last() const {
    return ImageMaker(base, changes).At({changes.size(), 0});
}

// Operations that changed nothing end at one moment: what the last of them led to has begun there.
std::size_t History::BegunAt(std::size_t at) const {
    const auto ended =
        std::lower_bound(marks.begin(), marks.end(), at,
                         [](const Mark& mark, std::size_t count) { return mark.changes < count; });
    const std::size_t next = ended == marks.end() ? states.size() - 1 : ended->begun;
    return std::max(next, MarkBefore(marks, at).begun);
}

StateRange History::AfterKill(std::size_t at, bool partOfNext) const {
    return {MarkBefore(marks, at).acknowledged, BegunAt(partOfNext ? at + 1 : at)};
}

StateRange History::AfterPowerCut(std::size_t at) const {
    return {MarkBefore(marks, at).flushed, BegunAt(at)};
}

namespace {

constexpr u32 kFirstStamp = 0x40000000;  // none that a history uses
constexpr std::size_t kPoints = 2000;    // of a session that is killed

Problem Append(model::StorageClient& client, const Appending& appending, Seen* seen) {
    void* const handle = client.Handle();
    u32 rc = K9eReplStorageBeginTransaction(handle);
    for (u32 i = 0; i < appending.records && rc == RC_OK; ++i) {
        const auto planned =
            model::MakeRecord({model::SizeClass::kBytes, appending.dataSize},
                              appending.dataSize + model::kRecordOverhead, appending.seed + i);
        i64 rev = 0;
        rc = client.Insert(planned, nullptr, &rev);
        seen->records[rev] = planned.record;
        seen->nextRev = rev + 1;
    }
    rc = rc == RC_OK ? K9eReplStorageCommit(handle) : rc;
    return rc == RC_OK ? "" : "appending answers " + std::to_string(rc);
}

Problem Compare(const char* what, const Seen& seen, const Seen& expected) {
    return seen == expected
               ? ""
               : std::string(what) + ": " + Describe(seen) + "; expected " + Describe(expected);
}

bool Holds(const model::Content& state, const Seen& seen) {
    return state.nextRev.Hold(seen.nextRev) && state.oldest.Hold(seen.oldestRev) &&
           state.records == seen.records;
}

std::string Describe(const model::Content& state) {
    Seen seen{state.records, state.nextRev.low, state.oldest.low, state.lifenum, state.mark};
    return reliability::Describe(seen);
}

// What a reader wants to know first of two contents that look alike.
std::string FirstDifference(const Seen& seen, const model::Records& records) {
    for (const auto& [rev, record] : records) {
        const auto found = seen.records.find(rev);
        if (found == seen.records.end()) {
            return "revision " + std::to_string(rev) + " is missing";
        }
        if (found->second != record) {
            const std::string& got = found->second.data;
            const bool zeros = got.find_first_not_of('\0') == std::string::npos;
            return "revision " + std::to_string(rev) + " has other bytes, " +
                   std::to_string(got.size()) + (zeros ? ", all zero" : "");
        }
    }
    return "";
}

}  // namespace

std::string Describe(const Seen& seen) {
    std::string text = std::to_string(seen.records.size()) + " records";
    if (!seen.records.empty()) {
        text += " (" + std::to_string(seen.records.begin()->first) + " to " +
                std::to_string(seen.records.rbegin()->first) + ")";
    }
    return text + ", next " + std::to_string(seen.nextRev) + ", oldest " +
           std::to_string(seen.oldestRev) + ", life number " + std::to_string(seen.lifenum) +
           ", mark " + std::to_string(seen.mark);
}

u32 ReadRange(const model::StorageClient& client, i64 from, i64 to, model::Records* records,
              bool* rises) {
    return client.Enumerate(from, to, [&](const K9eReplRec& record) {
        if (rises != nullptr && !records->empty()) {
            *rises = *rises && record.rev > records->rbegin()->first;
        }
        const auto* data = reinterpret_cast<const char*>(record.data);
        records->emplace_hint(records->end(), i64{record.rev},
                              model::Record{record.userWord, std::string(data, record.dataSize)});
        return u32{RC_OK};
    });
}

void ReadMarks(const model::StorageClient& client, Seen* seen) {
    auto* storage = static_cast<IK9eReplStorage*>(client.Handle());
    seen->nextRev = client.NextRev();
    seen->oldestRev = StorageAccess::OldestRev(*static_cast<CK9eReplStorage*>(storage));
    K9eReplStorageGetLifenum(client.Handle(), &seen->lifenum);
    K9eReplStorageGetClearOldRev(client.Handle(), &seen->mark);
}

Problem Read(const model::StorageClient& client, Seen* seen) {
    *seen = Seen();
    const u32 rc = ReadRange(client, model::kLowestRev, model::kHighestRev, &seen->records);
    ReadMarks(client, seen);
    return rc == RC_OK ? "" : "enumeration answers " + std::to_string(rc);
}

Problem Visit(const std::string& connString, const Appending& appending, Seen* seen, Seen* after) {
    model::StorageClient client;
    if (const u32 rc = client.Open(connString); rc != RC_OK) {
        return "opening answers " + std::to_string(rc);
    }
    if (const u32 rc = K9eReplStorageLoad(client.Handle()); rc != RC_OK) {
        return "loading answers " + std::to_string(rc);
    }
    Problem problem = Read(client, seen);
    if (problem.empty() && appending.records > 0) {
        Seen appended = *seen;
        problem = Append(client, appending, &appended);
        if (after != nullptr) {
            *after = std::move(appended);
        }
    }
    return problem;
}

Problem JudgeByStates(const History& history, StateRange range, const Seen& seen) {
    const auto first = history.states.begin() + static_cast<std::ptrdiff_t>(range.low);
    const auto end = history.states.begin() + static_cast<std::ptrdiff_t>(range.high) + 1;
    const auto any = [&](const auto& holds) { return std::any_of(first, end, holds); };
    if (!any([&](const model::Content& state) { return Holds(state, seen); })) {
        return "content is none that it had: " + reliability::Describe(seen) + "; expected state " +
               std::to_string(range.low) + " (" + Describe(*first) + ") to " +
               std::to_string(range.high) + " (" + Describe(*(end - 1)) + "); " +
               FirstDifference(seen, (end - 1)->records);
    }
    if (!any([&](const model::Content& state) { return state.lifenum == seen.lifenum; })) {
        return "life number is none that it had: " + std::to_string(seen.lifenum);
    }
    if (!any([&](const model::Content& state) { return state.mark == seen.mark; })) {
        return "revision mark is none that it had: " + std::to_string(seen.mark);
    }
    return "";
}

Judge ByStates(const History& history, StateRange range) {
    return [&history, range](const Seen& seen) { return JudgeByStates(history, range, seen); };
}

Problem Examine(MemoryDisk& disk, const DiskImage& image, const History& history, u64 seed,
                const Judge& judge) {
    SteadyCalls::SetStamp(kFirstStamp);
    disk.Mount(image);
    model::Random random(seed);
    const u32 sizeMax = std::min<u32>(history.settings.blockSize - model::kRecordOverhead, 300);
    const Appending appending{
        1 + random.Below(2),
        std::min(sizeMax, history.recordSize > 0 ? history.recordSize : random.Below(sizeMax)),
        static_cast<u32>(random.Next())};
    const std::string connString = history.ConnString();
    Seen first;
    Seen second;
    Seen expected;
    if (Problem problem = Visit(connString, {}, &first); !problem.empty()) {
        return problem;
    }
    if (Problem problem = judge(first); !problem.empty()) {
        return problem;
    }
    Problem problem = Visit(connString, appending, &second, &expected);
    if (problem.empty()) {
        problem = Compare("opened again", second, first);
    }
    if (!problem.empty()) {
        return problem;
    }
    Seen last;
    problem = Visit(connString, {}, &last);
    return problem.empty() ? Compare("opened after appending", last, expected) : problem;
}

Problem CrashAgain(MemoryDisk& disk, const History& history, u32 firstStamp, u32 recordsMin,
                   model::Random& random, DiskImage* image, Judge* judge) {
    SteadyCalls::SetStamp(firstStamp);
    disk.Mount(*image);
    disk.StartRecording();
    const Appending appending{recordsMin + random.Below(3),
                              history.recordSize > 0 ? history.recordSize : random.Below(100),
                              static_cast<u32>(random.Next())};
    Seen found;
    Seen left;
    Problem problem = Visit(history.ConnString(), appending, &found, &left);
    const Changes changes = disk.TakeChanges();
    problem = problem.empty() ? (*judge)(found) : problem;
    if (!problem.empty()) {
        return problem;
    }
    left = appending.records == 0 ? found : left;
    const CrashPoint point = random.AnyOf(CrashPointsOf(changes, kPoints, random.Next()));
    *image = ImageMaker(*image, changes).At(point);
    found = point.changes == changes.size() ? left : found;
    *judge = [found, left](const Seen& seen) -> Problem {
        return seen == found || seen == left
                   ? ""
                   : "found " + Describe(seen) + " after an opening that had found " +
                         Describe(found) + " and would have left " + Describe(left);
    };
    return "";
}

}  // namespace k9erepl::reliability
