// Enumerates committed records from the storage file through read buffers. It reads what the load
// scan accepted, what was written since, and what an index let the load pass over; so a fault that
// it finds is an error of the call. The storage's walks over a range and its searches at a clear
// use it. docs/storage-file.md ("The reader of enumerations") lists the faults.
#ifndef K9EREPL_SOLID_RECORD_ENUM_H
#define K9EREPL_SOLID_RECORD_ENUM_H

#include <k9erepl/storage.h>

#include <cassert>
#include <optional>

#include "format/storage_file_format.h"
#include "platform/int_types.h"
#include "solid/enum_buffers.h"
#include "solid/file_items.h"
#include "solid/live_file.h"
#include "solid/storage_file.h"
#include "support/result.h"

namespace k9erepl {

// Receives one item of an enumeration: its file offset, and the record, or null for a commit block.
// The record is valid during the call. A result other than RC_OK stops the enumeration.
using FileItemVisitor = u32 (*)(i64 offset, const K9eReplRec* rec, void* ctx);

// The result of an enumeration whose startRev is wrong: not an error of the file, and not logged.
inline constexpr u32 kNoSuchRecord = RC_NOT_FOUND;

// What an enumeration of the file covers.
struct FileEnumRange {
    i64 fromRev = 0;           // revision, inclusive
    i64 toRev = 0;             // revision, inclusive
    bool alsoCommits = false;  // visit commit blocks, too
    // The file offset where an item begins; 0 for the file's first commit block.
    i64 startOffset = 0;
    // The revision of the record that begins at startOffset, as a note says. If no sound record
    // with it begins there, nothing is visited and the result is kNoSuchRecord.
    std::optional<i64> startRev = {};
    // Visit records below fromRev, too, unless that takes a read of its own.
    bool alsoPassed = false;
    // Up to this file offset every record is at or below toRev, as the caller knows from where its
    // blocks begin: a record that is not is damaged. 0: nothing is known.
    i64 reachesTo = 0;
};

// CSolidStorage owns one and calls it under the storage's lock. A visitor may enumerate again; the
// levels are counted. The arguments outlive this object.
class RecordEnum {
  public:
    RecordEnum(StorageFile& file, LiveFile& live) : m_file(file), m_live(live) {}

    // To be called when the file is open. Errors and exceptions: as EnumBuffers::Init.
    [[nodiscard]] ResultCode Init(const char* connStr) { return m_buffers.Init(connStr); }
    // To be called when the file is closed. REQUIRES: no enumeration runs.
    void Reset() {
        assert(!IsRunning());
        m_buffers.Reset();
    }

    // True while an enumeration runs, so only inside its visitor.
    bool IsRunning() const { return m_depth != 0; }

    // See CSolidStorage::EnumFileRecs.
    [[nodiscard]] ResultCode Run(const FileEnumRange& range, FileItemVisitor visitor, void* ctx,
                                 bool* completed);

  private:
    // What is to be done with one item; in the source.
    struct Item;
    // Who receives the items, with what, and whether it stopped the enumeration; in the source.
    struct Receiver;

    // Does the whole work for the items from the current offset on for as long as they lie in the
    // read buffer, are no commit blocks to be visited, and nothing is wrong with them. Most records
    // go this way; LookAtItem judges the item that it leaves. Errors: the visitor's result.
    [[nodiscard]] ResultCode TakeHeld(FileItems& items, const FileEnumRange& range,
                                      const Receiver& receiver) const;
    // Looks whether the record of range.startRev begins at the current offset. Errors:
    // kNoSuchRecord, not logged; those of reading.
    [[nodiscard]] static ResultCode CheckStart(FileItems& items, const FileEnumRange& range);
    // *item receives what is to be done with the item at the current offset.
    // Errors, logged: RC_BAD_DATA, RC_FILE_CORRUPT, those of reading.
    [[nodiscard]] ResultCode LookAtItem(FileItems& items, const FileEnumRange& range,
                                        Item* item) const;
    // RC_OK when the record of `head`, which is above the range, can be believed; else RC_BAD_DATA,
    // logged.
    [[nodiscard]] ResultCode CheckRangeEnd(FileItems& items, const FileEnumRange& range,
                                           const TRecordHead& head) const;
    // Hands `item` to the visitor. Errors: the visitor's result; those of reading.
    [[nodiscard]] static ResultCode VisitItem(FileItems& items, const Item& item,
                                              const Receiver& receiver);

    StorageFile& m_file;
    LiveFile& m_live;
    EnumBuffers m_buffers{m_file};
    // Enumerations that run, each but the first in a visitor of the one before; 0: none.
    u32 m_depth = 0;
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_RECORD_ENUM_H
