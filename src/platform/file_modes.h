// How a file is opened. Used by File and by the table of system calls.
#ifndef K9EREPL_PLATFORM_FILE_MODES_H
#define K9EREPL_PLATFORM_FILE_MODES_H

namespace k9erepl::platform {

enum class FileAccess { kRead, kWrite, kReadWrite };

enum class FileDisposition {
    kOpenExisting,  // fails when there is no file
    kCreateNew,     // fails when there is one
    kCreateAlways,  // empties an existing one
    kOpenAlways,    // opens an existing one as it is, else creates
};

// What others may do with the file meanwhile. Windows enforces it; POSIX systems do not.
enum class FileSharing {
    kRead,
    kReadWrite,
    kAll,  // also rename and delete it
};

struct FileOpenRequest {
    FileAccess access = FileAccess::kReadWrite;
    FileDisposition disposition = FileDisposition::kOpenExisting;
    FileSharing sharing = FileSharing::kReadWrite;
    bool writeThrough = false;    // a write returns when its bytes are on the disk
    bool sequentialScan = false;  // a hint to the system's read-ahead
    bool ownerOnly = false;       // a created file is closed to other users; POSIX only
};

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_FILE_MODES_H
