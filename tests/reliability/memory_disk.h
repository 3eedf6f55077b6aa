// A disk in memory behind the table of system calls: files as on POSIX systems (an open file
// outlives its name, hard links, nothing is refused), fast, with every change recorded in order,
// and with a gate at which a test makes single calls fail. Threads, events and clocks are not its
// business; see steady_calls.h.
//
//     MemoryDisk disk;                       // before any storage is opened, one at a time
//     disk.Mount(image);
//     disk.StartRecording();
//     ... storages with paths in kFolder
//     const Changes changes = disk.TakeChanges();
#ifndef K9EREPL_TESTS_RELIABILITY_MEMORY_DISK_H
#define K9EREPL_TESTS_RELIABILITY_MEMORY_DISK_H

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "reliability/disk_image.h"
#include "support/call_layer.h"
#include "support/fault_injection.h"

namespace k9erepl::reliability {

inline constexpr const char* kFolder = "/memory-disk/";

// A call on a file or a name that is about to be made.
struct Attempt {
    test::SystemCall call;
    std::string name;  // of the file when it was opened; the first name of a call on names
    i64 at = 0;        // the file pointer; the size for an end to set
    u32 size = 0;      // of a transfer
};
// The call as a reader knows it.
const char* NameOf(test::SystemCall call);

// What becomes of it. At most `sizeMax` bytes are transferred. `others` are changes that another
// process makes before the call; they are not recorded.
struct Permit {
    std::optional<test::SystemErrorKind> error;
    u32 sizeMax = 0xFFFFFFFF;
    Changes others = {};
};
// Called for every call, one at a time, in whatever thread; must not use the disk.
using Gate = std::function<Permit(const Attempt& attempt)>;

// While it lives the entries for files and names of the table are its own.
class MemoryDisk : test::CallLayer<MemoryDisk> {
  public:
    MemoryDisk();  // empty

    // REQUIRES: nothing is open.
    void Mount(DiskImage image);
    // What it holds at this moment.
    DiskImage Image() const;

    // From now on changes are recorded. Forgets those recorded before.
    void StartRecording();
    std::size_t ChangeCount() const;
    // Ends the recording.
    Changes TakeChanges();

    // Null lets everything pass.
    void SetGate(Gate gate);
    std::size_t OpenFiles() const;
    // From now on the files together, those with names, may have as many bytes as this; negative:
    // any. Bytes that were only sized ahead count if `holesCount`.
    void SetCapacity(i64 bytes, bool holesCount);
    // Calls that found the disk full.
    u64 FullCount() const;
    i64 UsedBytes(bool holesCount) const;

  private:
    friend test::CallLayer<MemoryDisk>;
    platform::NativeFile Open(const char* path, const platform::FileOpenRequest& request);
    bool Close(platform::NativeFile file);
    i64 Read(platform::NativeFile file, void* buffer, u32 size);
    i64 Write(platform::NativeFile file, const void* data, u32 size);
    i64 Seek(platform::NativeFile file, i64 position);
    i64 Tell(platform::NativeFile file);
    bool SetEnd(platform::NativeFile file, i64 size);
    i64 SizeOf(platform::NativeFile file);
    bool Flush(platform::NativeFile file);
    bool TakeOwner(platform::NativeFile file, const char* from);
    bool Lock(platform::NativeFile file);
    bool Unlock(platform::NativeFile file);
    bool Identify(platform::NativeFile file, platform::FileIdentity* identity);
    bool IdentifyName(const char* path, platform::FileIdentity* identity);
    bool Rename(const char* from, const char* to);
    bool Link(const char* existing, const char* name);
    bool Remove(const char* path);
    bool MakeDirectory(const char* path);
    bool FlushDirectory(const char* path);
    void StartFlush(platform::NativeFile /*file*/, i64 /*position*/, i64 /*size*/) {}

    struct Handle {
        FileNumber file = 0;  // 0: closed
        i64 position = 0;
        std::string name;
        bool writes = false;
        bool writesThrough = false;  // each write is followed by a flush of the file
        bool locked = false;
    };

    Handle* Find(platform::NativeFile file);
    // False, with the error set, when the gate refuses. *sizeMax unless null: what it lets pass.
    bool Pass(const Attempt& attempt, u32* sizeMax = nullptr);
    bool Pass(test::SystemCall call, const Handle& handle, u32 size = 0, u32* sizeMax = nullptr);
    // False, with the error set, when not a byte of a change that makes `file` end there fits.
    // *sizeMax, unless null: the bytes of a write that fit.
    bool Fits(FileNumber file, i64 end, u32* sizeMax);
    void Do(Change change);
    // `deed` on what an open file or a name leads to; `refused` when there is none, or the gate
    // refuses.
    template <typename Result, typename Deed>
    Result OnFile(platform::NativeFile file, test::SystemCall call, Result refused, Deed deed);
    template <typename Deed>
    bool OnName(const char* name, test::SystemCall call, Deed deed);
    platform::NativeFile AddHandle(FileNumber file, const std::string& path,
                                   const platform::FileOpenRequest& request);

    mutable std::mutex m_mutex;  // guards what follows
    DiskImage m_image;
    std::vector<Handle> m_handles;
    FileNumber m_nextFile = 1;
    bool m_recording = false;
    Changes m_changes;
    Gate m_gate;
    i64 m_capacity = -1;
    bool m_holesCount = false;
    u64 m_fullCount = 0;
};

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_MEMORY_DISK_H
