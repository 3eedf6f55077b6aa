// One step of a script. Revisions and sizes are relative to what the storage holds when the step
// runs, so that a script means the same when other steps are taken out of it; the model turns them
// into numbers.
#ifndef K9EREPL_TESTS_MODEL_OPERATION_H
#define K9EREPL_TESTS_MODEL_OPERATION_H

#include <string>
#include <vector>

#include "model/content.h"
#include "model/settings.h"

namespace k9erepl::model {

class Model;

enum class OpKind : u8 {
    kBegin,
    kCommit,
    kRollback,
    kInsert,
    kInsertPrepared,
    kInsertMany,
    kEnumerate,
    kEnumerateFrom,
    kEnumerateWithoutVisitor,
    kClear,
    kClearAll,
    kTruncate,
    kSetLifenum,
    kLoad,
    kFlushOnIdle,
    kLookAtFile,
    kHoldWriter,
    kReopen,
};

enum class RevPlace : u8 {
    kAbsolute,     // `shift` itself
    kKept,         // a kept record, `permille` of the way through them; next to come if none
    kOldest,       // the oldest kept revision
    kNext,         // the next revision
    kTransaction,  // a little below the next revision
    kLowest,       // the lowest number
    kHighest,      // the highest number
};

struct RevChoice {
    RevPlace place = RevPlace::kAbsolute;
    u32 permille = 0;
    i64 shift = 0;  // added
};

enum class SizeClass : u8 {
    kBytes,     // `number` bytes of data
    kPermille,  // of what fits a block
    kFits,      // just what fits a block, less `number`
    kTooLarge,  // that and `number` + 1
    kClaim,     // a claim of nearly 4 GiB, less `number`
};

struct SizeChoice {
    SizeClass of = SizeClass::kBytes;
    u32 number = 0;
};

enum class IndexFate : u8 { kKeep, kDelete, kDamage, kForge, kRestoreOlder };
enum class CreateFirst : u8 { kNo, kRefused, kLeave, kReplace, kDelete };

// What happens between the closing of a storage and its next opening, and how it is opened.
struct ReopenPlan {
    Settings settings;
    IndexFate index = IndexFate::kKeep;
    u32 damagePermille = 0;  // where in the index
    i64 forgery = 0;         // what is added to an offset there
    bool saveIndex = false;
    CreateFirst create = CreateFirst::kNo;
    bool load = true;
    bool tooSmall = false;  // blocks may be too small for what the file holds
};

struct Operation {
    OpKind kind = OpKind::kBegin;
    std::size_t number = 0;  // its place in the whole script
    RevChoice from;          // of a range
    RevChoice to;
    RevChoice rev;  // to insert or to clear up to
    SizeChoice size;
    u32 word = 0;       // user word, life number, seed of the data
    u32 mode = 0;       // of a clear
    u32 count = 0;      // records to insert; or the record at which an enumeration stops, 0: none
    u32 stopCode = 0;   // what the visitor answers then
    bool acts = false;  // at that record the visitor does `action` instead, and goes on
    OpKind action = OpKind::kInsert;
    ReopenPlan reopen;
};

using Script = std::vector<Operation>;

const char* NameOf(OpKind kind);
// One line.
std::string Describe(const Operation& operation);

i64 Resolve(const RevChoice& choice, const Model& model);

// A record to hand in. What it claims is its data's size, except for a claim that nobody can meet.
struct PlannedRecord {
    Record record;
    u32 dataSize = 0;

    u64 Need() const { return u64{dataSize} + kRecordOverhead; }
};
// The data follow from the seed.
PlannedRecord MakeRecord(const SizeChoice& choice, u32 blockSize, u32 seed);

}  // namespace k9erepl::model

#endif  // K9EREPL_TESTS_MODEL_OPERATION_H
