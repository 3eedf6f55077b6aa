// The hooks of the table of system calls; see the header.
#include "crash/traced_calls.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <utility>

#include "platform/system_error.h"
#include "support/file_bytes.h"

namespace k9erepl::test {
namespace {

using platform::FileDisposition;
using platform::FileOpenRequest;
using platform::NativeFile;
using platform::SystemErrorKind;

const platform::SystemCalls& Native() {
    return platform::NativeSystemCalls();
}

// What the hooks know. The index thread calls them, too.
class Recorder {
  public:
    void Reset(const std::string& storagePath) {
        const std::lock_guard lock(m_mutex);
        m_files.clear();
        m_roles = {{storagePath, "storage"},
                   {storagePath + "-idx", "index"},
                   {storagePath + ".temporary", "temporary"},
                   {storagePath + ".backup", "backup"},
                   {storagePath + ".backup-idx", "backup-index"},
                   {storagePath.substr(0, storagePath.rfind('/') + 1), "directory"}};
        m_hasLinks = true;
        m_recording = false;
        m_end.reset();
    }

    void RefuseHardLinks() { m_hasLinks = false; }
    bool HasHardLinks() const { return m_hasLinks; }

    void Begin() {
        const std::lock_guard lock(m_mutex);
        m_trace.clear();
        m_recording = true;
    }
    Trace End() {
        const std::lock_guard lock(m_mutex);
        m_recording = false;
        return std::exchange(m_trace, {});
    }
    void EndProcessAt(const CrashPoint& point) { m_end = point; }

    std::string RoleOf(const std::string& path) {
        const auto found = m_roles.find(path);
        return found == m_roles.end() ? path : found->second;
    }
    std::string RoleOf(NativeFile file) {
        const std::lock_guard lock(m_mutex);
        return m_files[file];
    }
    void Opened(NativeFile file, const std::string& path) {
        const std::lock_guard lock(m_mutex);
        m_files[file] = RoleOf(path);
    }

    // Records the call; returns its place, none when nothing is recorded.
    std::optional<std::size_t> Record(const char* kind, const std::string& file,
                                      const std::string& more = "") {
        const std::lock_guard lock(m_mutex);
        if (!m_recording) {
            return std::nullopt;
        }
        const auto before = std::count_if(m_trace.begin(), m_trace.end(),
                                          [&](const auto& call) { return call.kind == kind; });
        m_trace.push_back({kind, file, kind + (" " + file) + more, static_cast<u32>(before) + 1});
        return m_trace.size() - 1;
    }
    bool IsEnd(const std::optional<std::size_t>& place, Moment moment) const {
        return m_end && place == m_end->call && m_end->moment == moment;
    }

  private:
    std::mutex m_mutex;
    std::map<NativeFile, std::string> m_files;  // roles of the open files
    Trace m_trace;
    bool m_recording = false;

    // Set while there is one thread only.
    std::map<std::string, std::string> m_roles;
    bool m_hasLinks = true;
    std::optional<CrashPoint> m_end;
};

Recorder g_recorder;

// No two commit blocks have one stamp: those of the children begin far behind the test's own.
std::atomic<u64> g_timeStamp{0};
constexpr u64 kStampsOfTheTest = 0x1000;
constexpr u64 kStampsOfAChild = 0x80000000;

// Nothing gets to run any more, in whatever thread.
void EndProcess() {
    (void)raise(SIGKILL);
}

// One call that changes something: recorded, made, and perhaps the last of the process.
template <typename Call>
auto Traced(const char* kind, const std::string& file, const std::string& more, Call call) {
    const auto place = g_recorder.Record(kind, file, more);
    if (g_recorder.IsEnd(place, Moment::kBefore)) {
        EndProcess();
    }
    const auto result = call();
    if (g_recorder.IsEnd(place, Moment::kAfter)) {
        EndProcess();
    }
    return result;
}

NativeFile OpenHook(const char* path, const FileOpenRequest& request) {
    const auto open = [&] { return Native().openFile(path, request); };
    const NativeFile file = request.disposition == FileDisposition::kOpenExisting
                                ? open()
                                : Traced("Create", g_recorder.RoleOf(path), "", open);
    if (file != platform::kInvalidNativeFile) {
        g_recorder.Opened(file, path);
    }
    return file;
}

i64 WriteHook(NativeFile file, const void* data, u32 size) {
    const auto place = g_recorder.Record("Write", g_recorder.RoleOf(file));
    if (g_recorder.IsEnd(place, Moment::kBefore)) {
        EndProcess();
    }
    const bool endsWithin = g_recorder.IsEnd(place, Moment::kWithin);
    const i64 written = Native().writeFile(file, data, endsWithin ? size / 2 : size);
    if (endsWithin || g_recorder.IsEnd(place, Moment::kAfter)) {
        EndProcess();
    }
    return written;
}

bool SetEndHook(NativeFile file, i64 size) {
    return Traced("SetEnd", g_recorder.RoleOf(file), "",
                  [&] { return Native().setFileEnd(file, size); });
}

bool FlushHook(NativeFile file) {
    return Traced("Flush", g_recorder.RoleOf(file), "", [] { return true; });
}

bool TakeOwnerHook(NativeFile file, const char* from) {
    return Traced("TakeOwner", g_recorder.RoleOf(file), "",
                  [&] { return Native().takeOwnerAndMode(file, from); });
}

bool RenameHook(const char* from, const char* to) {
    return Traced("Rename", g_recorder.RoleOf(from), " to " + g_recorder.RoleOf(to),
                  [&] { return Native().renameFile(from, to); });
}

// A system without links still says first that the name is taken.
bool LinkOrRefuse(const char* existing, const char* name) {
    if (g_recorder.HasHardLinks()) {
        return Native().linkFile(existing, name);
    }
    platform::SetLastSystemError(platform::SystemErrorOf(
        Exists(name) ? SystemErrorKind::kAlreadyExists : SystemErrorKind::kNotSupported));
    return false;
}

bool LinkHook(const char* existing, const char* name) {
    return Traced("Link", g_recorder.RoleOf(existing), " as " + g_recorder.RoleOf(name),
                  [&] { return LinkOrRefuse(existing, name); });
}

bool RemoveHook(const char* path) {
    return Traced("Remove", g_recorder.RoleOf(path), "", [&] { return Native().removeFile(path); });
}

bool MakeDirectoryHook(const char* path) {
    return Traced("MakeDirectory", g_recorder.RoleOf(path), "",
                  [&] { return Native().makeDirectory(path); });
}

bool FlushDirectoryHook(const char* path) {
    return Traced("Flush", g_recorder.RoleOf(path), "", [] { return true; });
}

u64 TimeStampHook() {
    return ++g_timeStamp;
}

const char* TextOf(Moment moment) {
    switch (moment) {
        case Moment::kBefore:
            return "Before";
        case Moment::kWithin:
            return "Within";
        case Moment::kAfter:
            break;
    }
    return "After";
}

bool ChangesNames(const TracedCall& call) {
    return call.kind == "Create" || call.kind == "Rename" || call.kind == "Link" ||
           call.kind == "Remove";
}

}  // namespace

std::vector<CrashPoint> CrashPointsOf(const Trace& trace) {
    std::vector<CrashPoint> points;
    for (std::size_t call = 0; call < trace.size(); ++call) {
        points.push_back({call, Moment::kBefore});
        if (trace[call].kind == "Write") {
            points.push_back({call, Moment::kWithin});
        }
        points.push_back({call, Moment::kAfter});
    }
    return points;
}

std::string NameOf(const Trace& trace, const CrashPoint& point) {
    const TracedCall& call = trace.at(point.call);
    return TextOf(point.moment) + call.kind + std::to_string(call.nth) + " (" + call.text + ")";
}

std::vector<std::string> TextsOf(const Trace& trace) {
    std::vector<std::string> texts;
    std::transform(trace.begin(), trace.end(), std::back_inserter(texts),
                   [](const TracedCall& call) { return call.text; });
    return texts;
}

bool IsDone(const Trace& trace, const std::string& text, const CrashPoint& point) {
    const auto found = std::find_if(trace.rbegin(), trace.rend(),
                                    [&](const TracedCall& call) { return call.text == text; });
    if (found == trace.rend()) {
        return false;
    }
    const auto place = static_cast<std::size_t>(std::distance(found, trace.rend())) - 1;
    return place < point.call || (place == point.call && point.moment == Moment::kAfter);
}

std::vector<std::string> UnflushedBefore(const Trace& trace, const std::string& text) {
    std::set<std::string> unflushed;
    for (const TracedCall& call : trace) {
        if (call.text == text) {
            break;
        }
        if (call.kind == "Flush") {
            unflushed.erase(call.file);
        } else {
            unflushed.insert(ChangesNames(call) ? "directory" : call.file);
        }
    }
    return {unflushed.begin(), unflushed.end()};
}

std::vector<std::string> UnflushedAtTheEnd(const Trace& trace) {
    return UnflushedBefore(trace, "no such call");
}

TracedCalls::TracedCalls(const std::string& storagePath) : m_saved(platform::TheSystemCalls()) {
    g_recorder.Reset(storagePath);
    platform::SystemCalls& table = platform::TheSystemCalls();
    table.openFile = OpenHook;
    table.writeFile = WriteHook;
    table.setFileEnd = SetEndHook;
    table.flushFile = FlushHook;
    table.startFlush = [](NativeFile, i64, i64) {};
    table.takeOwnerAndMode = TakeOwnerHook;
    table.renameFile = RenameHook;
    table.linkFile = LinkHook;
    table.removeFile = RemoveHook;
    table.makeDirectory = MakeDirectoryHook;
    table.flushDirectory = FlushDirectoryHook;
    table.timeStampCounter = TimeStampHook;
    g_timeStamp = kStampsOfTheTest;
}

TracedCalls::~TracedCalls() {
    platform::TheSystemCalls() = m_saved;
}

void TracedCalls::RefuseHardLinks() {
    g_recorder.RefuseHardLinks();
}

void TracedCalls::Begin() {
    g_recorder.Begin();
}

Trace TracedCalls::End() {
    return g_recorder.End();
}

void TracedCalls::EndProcessAt(const CrashPoint& point) {
    g_recorder.EndProcessAt(point);
    g_timeStamp = kStampsOfAChild;
}

}  // namespace k9erepl::test
