// The storage file's structures, byte for byte (docs/storage-file.md draws them): the header, the
// record head and the commit block. The same record bytes lie in memory blocks. Knows nothing of
// the rest; every module may include it.
#ifndef K9EREPL_FORMAT_STORAGE_FILE_FORMAT_H
#define K9EREPL_FORMAT_STORAGE_FILE_FORMAT_H

#include <cstddef>
#include <cstring>
#include <type_traits>

#include "format/int_types.h"

namespace k9erepl {

inline constexpr char kHeaderSignature[] = "K9_EREPL";  // without its terminating zero
inline constexpr u32 kHeaderSignatureSize = 8;
inline constexpr u32 kFormatVersion = 3;
inline constexpr u32 kReservedHeaderBytes = 1000;
inline constexpr u32 kRecordSignature = 0x7B3A2D2A;
inline constexpr u32 kCommitSignature = 0x3A2D2A7D;

#pragma pack(push, 1)

// Bytes 0 to 1023 of the file.
struct TFileHeader {
    char signature[kHeaderSignatureSize];
    u32 version;
    u32 lifenum;                        // set by the client; 0 in a new file
    i64 clearOldRev;                    // the revision mark; 0 in a new file
    u8 reserved[kReservedHeaderBytes];  // zero
};

// Closes a run of records, or stands alone to raise the clear revision.
struct TCommitBlock {
    u32 signature;
    u32 prevSequence;  // sequence of the commit block before this one; 0 in the file's first
    u32 sequence;      // stamp that links the next commit block to this one
    u32 zero;          // written as 0, ignored when read
    i64 clearRev;      // records below it are no longer part of the storage
    i64 commitRev;     // the highest revision that this block commits
};

// In front of every record's data. From `rev` on, these are the bytes of the client's K9eReplRec.
struct TRecordHead {
    u32 signature;
    u32 size;  // of the whole record: dataSize + 24
    i64 rev;
    u32 userWord;
    u32 dataSize;
};

#pragma pack(pop)

inline constexpr u32 kFileHeaderSize = 1024;
inline constexpr u32 kCommitBlockSize = 32;
inline constexpr u32 kRecordHeadSize = 24;
inline constexpr u32 kRecordPrefixSize = 8;       // signature and size, before the client's record
inline constexpr u32 kClientRecordHeadSize = 16;  // rev, userWord, dataSize
inline constexpr u32 kSignatureSize = 4;
// The largest record of a storage file, its head included: the load scan reads an item into a
// buffer of this size, so insertion refuses what is larger.
inline constexpr u32 kFileRecordSizeMax = 10 * 1024 * 1024;
// "Not known yet", of a file offset.
inline constexpr i64 kUnknownOffset = -1;
inline constexpr i64 kFirstCommitOffset = 1024;
inline constexpr i64 kFirstItemOffset = 1056;
inline constexpr u32 kNewFileSize = 1064;  // header, first commit block, 8 zero bytes

static_assert(sizeof(TFileHeader) == kFileHeaderSize);
static_assert(offsetof(TFileHeader, version) == 8);
static_assert(offsetof(TFileHeader, lifenum) == 12);
static_assert(offsetof(TFileHeader, clearOldRev) == 16);
static_assert(offsetof(TFileHeader, reserved) == 24);
static_assert(sizeof(TCommitBlock) == kCommitBlockSize);
static_assert(offsetof(TCommitBlock, prevSequence) == 4);
static_assert(offsetof(TCommitBlock, sequence) == 8);
static_assert(offsetof(TCommitBlock, clearRev) == 16);
static_assert(offsetof(TCommitBlock, commitRev) == 24);
static_assert(sizeof(TRecordHead) == kRecordHeadSize);
static_assert(offsetof(TRecordHead, rev) == kRecordPrefixSize);
static_assert(offsetof(TRecordHead, dataSize) == 20);
static_assert(kRecordPrefixSize + kClientRecordHeadSize == kRecordHeadSize);
static_assert(kFirstCommitOffset == kFileHeaderSize);
static_assert(kFirstItemOffset == kFirstCommitOffset + kCommitBlockSize);
static_assert(kNewFileSize == kFirstItemOffset + 8);

// Reads a structure or a word from bytes that need not be aligned.
template <typename T>
T LoadUnaligned(const void* bytes) {
    static_assert(std::is_trivially_copyable_v<T>);
    T value;
    std::memcpy(&value, bytes, sizeof(T));
    return value;
}

inline TFileHeader NewFileHeader() {
    TFileHeader header{};
    std::memcpy(header.signature, kHeaderSignature, kHeaderSignatureSize);
    header.version = kFormatVersion;
    return header;
}

// A commit block as its builder fills it; the writer sets prevSequence and clearRev when it
// writes the block. `stamp` is the time-stamp counter, of which the low half is kept.
inline TCommitBlock NewCommitBlock(u64 stamp, i64 commitRev) {
    TCommitBlock block{};
    block.signature = kCommitSignature;
    block.sequence = static_cast<u32>(stamp);
    block.commitRev = commitRev;
    return block;
}

}  // namespace k9erepl

#endif  // K9EREPL_FORMAT_STORAGE_FILE_FORMAT_H
