// Opens files that something has changed, and judges what the library makes of them by the slow
// reader: the same content, or the same refusal; then the storage goes on from there. Knows which
// field each byte of such a file belongs to, as docs/storage-file.md and docs/index-file.md say.
#ifndef K9EREPL_TESTS_RELIABILITY_HOSTILE_OPENING_H
#define K9EREPL_TESTS_RELIABILITY_HOSTILE_OPENING_H

#include <k9erepl/storage.h>

#include <string>
#include <vector>

#include "model/settings.h"
#include "reliability/family.h"
#include "reliability/memory_disk.h"
#include "reliability/oracle.h"
#include "reliability/slow_reader.h"

namespace k9erepl::reliability {

// What one opening answered and showed.
struct Opening {
    u32 openResult = RC_OK;
    u32 loadResult = RC_OK;
    u32 readResult = RC_OK;
    bool rises = true;  // the revisions, as they were read
    Seen seen;

    bool IsLoaded() const { return openResult == RC_OK && loadResult == RC_OK; }
};
Opening OpenAndRead(const std::string& connString);

// The storage file and, where it is not empty, the index file beside it.
struct HostileFiles {
    std::string storage;
    std::string index;
};
HostileFiles FilesOf(const DiskImage& image);
DiskImage ImageOf(const HostileFiles& files);
// The name of the index file of StoragePath().
std::string IndexPath();

// What the storage shows when it was loaded so. Read into memory, it leaves the marks in the file.
Seen ShownBy(const std::string& bytes, const SlowScan& scan, bool inMemory);

// A storage that was closed in good order, with a few zeros behind its data, and what it is made
// of.
struct SoundFiles {
    explicit SoundFiles(const History& history);

    HostileFiles files;
    model::Settings settings;
    SlowScan scan;
};

// What became of the files, for the counts.
enum class Fate : u8 {
    kRefused,     // by both readers
    kTooLarge,    // a record does not fit the block size of the opening
    kSame,        // both readers see the same content
    kPassedOver,  // an index that holds led past damage, and what was read are sound records
    kCutShort,    // the same, and a revision that damage raised hides records
    kReported,    // the same, and reading answered an error
};
const char* NameOf(Fate fate);

struct HostileCase {
    HostileFiles files;
    model::Settings settings;
    bool indexMayPassOver = false;  // the storage file was changed, its index was kept

    bool InMemory() const { return settings.kind != model::SessionKind::kFile; }
};

// Opens, compares, appends, opens again. `seed` chooses what is appended.
// REQUIRES: a SteadyCalls lives.
Problem ExamineHostile(MemoryDisk& disk, const HostileCase& hostile, u64 seed, Fate* fate);
// The same as the case of a family: keeps its files, counts its fate; a problem begins with
// `change`, what was done to the files.
Problem ExamineHostile(GroupRun& run, MemoryDisk& disk, const HostileCase& hostile, u64 seed,
                       const std::string& change);

struct FileField {
    const char* name = "";  // such as "record: size"
    std::size_t at = 0;
    std::size_t size = 0;

    bool IsNumber() const { return size == 4 || size == 8; }
};

// In the order of their places, without gaps. REQUIRES: `scan` is that of the whole file, which it
// does not refuse.
std::vector<FileField> FieldsOfStorage(const std::string& bytes, const SlowScan& scan);
// REQUIRES: an index file of whole entries.
std::vector<FileField> FieldsOfIndex(const std::string& bytes);

// The one that holds the byte at `at`. REQUIRES: there is one.
const FileField& FieldAt(const std::vector<FileField>& fields, std::size_t at);

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_HOSTILE_OPENING_H
