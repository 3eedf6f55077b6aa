// The storage file's structures, byte for byte (docs/storage-file.md draws them): the header, the
// record head and the commit block. Records lie in memory blocks in the same form, so a flush
// writes a block's bytes as they stand. This header depends on no other part; every module may
// include it.
//
// All numbers are little-endian. Nothing in the file is aligned or padded, so the structures are
// packed, and bytes of unknown alignment are read with LoadUnaligned. stream_rules.h says in which
// order records and commit blocks may follow one another.
#ifndef K9EREPL_FORMAT_STORAGE_FILE_FORMAT_H
#define K9EREPL_FORMAT_STORAGE_FILE_FORMAT_H

#include <cstddef>
#include <cstring>
#include <type_traits>

#include "format/int_types.h"

namespace k9erepl {

// The file begins with these characters, without the terminating zero.
inline constexpr char kHeaderSignature[] = "K9_EREPL";
inline constexpr u32 kHeaderSignatureSize = 8;  // bytes
// The only version that we write and open.
inline constexpr u32 kFormatVersion = 3;
inline constexpr u32 kReservedHeaderBytes = 1000;
// The first word of every item says what it is: the bytes 2a 2d 3a 7b begin a record, the bytes
// 7d 2a 2d 3a a commit block. Any other word ends the valid data.
inline constexpr u32 kRecordSignature = 0x7B3A2D2A;
inline constexpr u32 kCommitSignature = 0x3A2D2A7D;

#pragma pack(push, 1)

// Bytes 0 to 1023 of the file. The only part that is rewritten in place: whoever changes a field
// reads all 1024 bytes, changes that field and writes them back.
struct TFileHeader {
    char signature[kHeaderSignatureSize];
    u32 version;
    // The client's life number, which K9eReplStorageSetLifenum sets; 0 in a new file.
    u32 lifenum;
    // The revision mark, which a clear with K9EREPL_CLEAR_MARK sets; 0 in a new file. No record is
    // removed for it, and it has nothing to do with a commit block's clearRev.
    i64 clearOldRev;
    // Written as zeros, never looked at, kept when the header is rewritten.
    u8 reserved[kReservedHeaderBytes];
};

// Closes a run of records, or stands alone to raise the clear revision. Records count as committed
// only when a commit block follows them. docs/storage-file.md, "Who fills which field when", says
// which field is set by the flush that builds the block and which by the writer.
struct TCommitBlock {
    u32 signature;
    // The sequence of the commit block before this one: the chain that makes a load stop at a block
    // of an older run. Nobody looks at it in the file's first commit block.
    u32 prevSequence;
    // The stamp to which the next commit block links. Any number.
    u32 sequence;
    u32 zero;  // written as 0, ignored when read
    // Records below it are no longer part of the storage, though they may still lie in the file. It
    // never falls from one commit block to the next.
    i64 clearRev;
    // The highest revision that this block commits; 0 in the first block of a new file.
    i64 commitRev;
};

// Stands in front of every record's data. From `rev` on, these are the bytes of the client's
// K9eReplRec, so a callback gets a pointer into the buffer that was read.
struct TRecordHead {
    u32 signature;
    // Bytes of the whole record: dataSize + 24. At most kFileRecordSizeMax in a storage file.
    u32 size;
    // The revision, at least 1 and above that of the record before it; gaps are allowed.
    i64 rev;
    // The client's own word, kept as it is.
    u32 userWord;
    // Bytes of data behind this head; may be 0.
    u32 dataSize;
};

#pragma pack(pop)

// All sizes and offsets are bytes.
inline constexpr u32 kFileHeaderSize = 1024;
inline constexpr u32 kCommitBlockSize = 32;
inline constexpr u32 kRecordHeadSize = 24;
inline constexpr u32 kRecordPrefixSize = 8;       // signature and size, before the client's record
inline constexpr u32 kClientRecordHeadSize = 16;  // rev, userWord, dataSize
inline constexpr u32 kSignatureSize = 4;          // the first word of an item
// The largest record of a storage file, its head included: the load scan reads an item into a
// buffer of this size, so insertion refuses what is larger.
inline constexpr u32 kFileRecordSizeMax = 10 * 1024 * 1024;
// The file offset of something that is not in the file yet, or was not looked for.
inline constexpr i64 kUnknownOffset = -1;
// Where every file has its first commit block, and where the first item behind it begins.
inline constexpr i64 kFirstCommitOffset = 1024;
inline constexpr i64 kFirstItemOffset = 1056;
// A new file without file_initial_size: header, first commit block and 8 zero bytes, which the
// first item overwrites. No file is ever cut to less: earlier versions of the library do not load a
// file below 1060 bytes.
inline constexpr u32 kNewFileSize = 1064;

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

// Reads a structure or a word from bytes that need not be aligned. There must be sizeof(T) of them.
template <typename T>
T LoadUnaligned(const void* bytes) {
    static_assert(std::is_trivially_copyable_v<T>);
    T value;
    std::memcpy(&value, bytes, sizeof(T));
    return value;
}

// The header of a new file: life number and revision mark are 0.
inline TFileHeader NewFileHeader() {
    TFileHeader header{};
    std::memcpy(header.signature, kHeaderSignature, kHeaderSignatureSize);
    header.version = kFormatVersion;
    return header;
}

// A commit block as its builder fills it: prevSequence and clearRev are 0 until the writer sets
// them right before it writes the block. `stamp` is the time-stamp counter, of which the lower 32
// bits become the sequence.
inline TCommitBlock NewCommitBlock(u64 stamp, i64 commitRev) {
    TCommitBlock block{};
    block.signature = kCommitSignature;
    block.sequence = static_cast<u32>(stamp);
    block.commitRev = commitRev;
    return block;
}

}  // namespace k9erepl

#endif  // K9EREPL_FORMAT_STORAGE_FILE_FORMAT_H
