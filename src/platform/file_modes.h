// Says how a file is opened. Used by File and by the table of system calls; posix/files.cpp and
// windows/files.cpp translate it.
#ifndef K9EREPL_PLATFORM_FILE_MODES_H
#define K9EREPL_PLATFORM_FILE_MODES_H

namespace k9erepl::platform {

// What the handle may be used for.
enum class FileAccess { kRead, kWrite, kReadWrite };

// What happens when there is a file, and when there is none.
enum class FileDisposition {
    kOpenExisting,  // fails with kNotFound when there is no file
    kCreateNew,     // fails with kAlreadyExists when there is a file
    kCreateAlways,  // empties an existing file, creates a missing one
    kOpenAlways,    // opens an existing file as it is, creates a missing one
};

// What others may do with the file while it is open here. Windows enforces it, also against handles
// of this process; POSIX systems do not.
enum class FileSharing {
    kRead,
    kReadWrite,
    kAll,  // also rename and delete it
};

// How one file is opened. The defaults are those of the storage file's handles: an existing file,
// for reading and writing, shared with other handles that read and write.
struct FileOpenRequest {
    FileAccess access = FileAccess::kReadWrite;
    FileDisposition disposition = FileDisposition::kOpenExisting;
    FileSharing sharing = FileSharing::kReadWrite;
    // A write returns only when its bytes are on the disk (setting write_through).
    bool writeThrough = false;
    // A hint that the file is read from its beginning to its end, for the system's read-ahead.
    bool sequentialScan = false;
    // A file that is created here may be read and written by its owner only. POSIX only: on Windows
    // the rights come from the folder.
    bool ownerOnly = false;
};

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_FILE_MODES_H
