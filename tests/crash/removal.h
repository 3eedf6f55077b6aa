// What the crash tests of clearing and truncation share: a storage with known content, every way to
// remove some of it, and a process that does so and ends in the middle.
#ifndef K9EREPL_TESTS_CRASH_REMOVAL_H
#define K9EREPL_TESTS_CRASH_REMOVAL_H

#include <ostream>
#include <string>
#include <vector>

#include "crash/traced_calls.h"
#include "engine/storage_fixture.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

namespace k9erepl::test {

// Everything that a storage shows of itself.
struct Content {
    SeenRecords records;
    i64 nextRev = 1;
    i64 oldestRev = 0;
    u32 lifenum = 0;
    i64 mark = 0;

    bool operator==(const Content&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Content& content);

enum class RemovalKind { kSqueeze, kSqueezeBackup, kTruncate, kClearAll, kClearLogically };

struct Removal {
    const char* name;
    RemovalKind kind;
    bool cleared = false;      // a logical clear comes first, which the removal makes physical
    bool olderBackup = false;  // the files of an earlier squeeze are there
    bool hardLinks = true;

    bool Squeezes() const { return kind <= RemovalKind::kSqueezeBackup; }
    bool KeepsBackup() const { return kind == RemovalKind::kSqueezeBackup; }
};

// Every way to remove; those that squeeze come first.
inline constexpr Removal kSqueeze = {"Squeeze", RemovalKind::kSqueeze};
inline constexpr Removal kSqueezeOfCleared = {"SqueezeOfCleared", RemovalKind::kSqueeze, true};
inline constexpr Removal kBackup = {"Backup", RemovalKind::kSqueezeBackup};
inline constexpr Removal kBackupOverOlder = {"BackupOverOlder", RemovalKind::kSqueezeBackup, false,
                                             true};
inline constexpr Removal kMovedBackup = {"MovedBackup", RemovalKind::kSqueezeBackup, false, false,
                                         false};
inline constexpr Removal kMovedBackupOverOlder = {"MovedBackupOverOlder",
                                                  RemovalKind::kSqueezeBackup, false, true, false};
inline constexpr Removal kTruncate = {"Truncate", RemovalKind::kTruncate};
inline constexpr Removal kClearAll = {"ClearAll", RemovalKind::kClearAll};
inline constexpr Removal kClearLogically = {"ClearLogically", RemovalKind::kClearLogically};

struct Sizes {
    const char* name;
    const char* settings;
};
inline constexpr Sizes kExact = {"Exact", ""};
inline constexpr Sizes kAhead = {"Ahead", "file_initial_size=1;file_size_delta=1;"};

// A storage of 30 records in transactions of three, in a folder of its own, and one way to remove
// some of them. While it lives the system calls are traced.
class RemovalStage {
  public:
    RemovalStage(const Removal& removal, const Sizes& sizes, bool forceFlush);

    // What the storage holds before the removal, and after it.
    Content Old() const;
    Content New() const;
    // The records of the backup that was there before.
    static SeenRecords OlderBackup();

    // Puts the files back to what they were before the removal.
    void Restore();
    // The removal as it goes when nothing happens: its calls. The files stay as it leaves them.
    Trace Run();
    // Restores, and removes in a process that ends at `point`. False when it ended otherwise.
    bool CrashAt(const CrashPoint& point);

    std::string Path() const { return m_folder.File("work/storage.edb"); }
    std::string Temporary() const { return Path() + ".temporary"; }
    std::string Backup() const { return Path() + ".backup"; }
    // The names of all files, in order.
    Strings Files() const;
    // Equal when all files have the same names, numbers of links and bytes.
    std::string State() const;

    // Opens the storage, removes what is to go, and closes. What is logged comes to `messages`.
    u32 RemoveAgain(std::vector<LoggedMessage>* messages = nullptr) const;
    // Opens and closes; the result of opening.
    u32 TryOpen() const;
    // Opens, reads everything, closes.
    Content Look() const;
    // The content of another file, which is copied to be read: opening a storage makes an index.
    Content LookAt(const std::string& path) const;
    // Appends one transaction of three records. Returns `content` with them.
    Content Append(Content content) const;

  private:
    std::string ConnStr(const std::string& path) const;
    void Build();
    u32 Remove(void* handle) const;
    [[noreturn]] void RemoveAndEndAt(const CrashPoint& point);

    const Removal m_removal;
    const std::string m_settings;
    const TempFolder m_folder;
    TracedCalls m_calls;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_CRASH_REMOVAL_H
