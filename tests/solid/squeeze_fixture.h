// What the tests of the squeeze share: a file of three transactions, the squeeze that keeps the
// second half of it, words for the files that it leaves, and the calls of the system that it makes,
// with what is left when one of them fails.
#ifndef K9EREPL_TESTS_SOLID_SQUEEZE_FIXTURE_H
#define K9EREPL_TESTS_SOLID_SQUEEZE_FIXTURE_H

#include <functional>
#include <ostream>
#include <span>
#include <string>
#include <vector>

#include "solid/solid_fixture.h"

namespace k9erepl::test {

using FileBytes = std::vector<u8>;

// Records 1 and 2, 3 and 4, and 5. Its items begin at 1056, 1083, 1110 (commit), 1142, 1171, 1199
// (commit), 1231, 1259 (commit); the data ends at 1291. The squeeze keeps what begins with record
// 4; its clear revision's commit block goes to 1291.
FileBuilder ThreeTransactions();

class SqueezeTest : public SolidTest {
  protected:
    static constexpr u32 kLifenum = 7;
    static constexpr i64 kClearOldRev = 8;
    static constexpr i64 kClearRev = 4;
    static constexpr i64 kCopyFrom = 1171;
    static constexpr i64 kCommitOffset = 1199;
    static constexpr i64 kOldEnd = 1291;
    static constexpr i64 kNewEnd = kFirstItemOffset + kOldEnd + kCommitBlockSize - kCopyFrom;
    static constexpr u32 kClearSequence = 0x5151;  // of the commit block at kOldEnd

    // Opens and scans ThreeTransactions; the next commit block gets kClearSequence.
    SqueezeTest();
    void OpenScanned(const FileBuilder& file, const std::string& settings = "");

    std::string Temporary() const { return Path() + ".temporary"; }
    std::string Backup() const { return Path() + ".backup"; }
    std::string BackupIndex() const { return Path() + ".backup-idx"; }

    SqueezeRequest Request(bool keepBackup = true) const;
    // The result code; the shift is in m_shift.
    u32 Squeeze(bool keepBackup = true) { return Squeeze(Request(keepBackup)); }
    u32 Squeeze(const SqueezeRequest& request) { return m_solid.Squeeze(request, &m_shift); }
    // The same with a function that is called right before the file is replaced.
    u32 SqueezeWith(const std::function<u32()>& beforeReplace, bool keepBackup = true);

    // The old file, with its clear revision's commit block, and the squeezed one.
    static FileBytes OldBytes() { return ThreeTransactions().Bytes(); }
    static FileBytes RaisedBytes();
    static FileBytes NewBytes();
    static Items NewItems();

    // The file at Path() with everything behind it: it is opened anew, loaded, holds the kept
    // records, takes one more transaction and is loaded again.
    void ExpectNothingLost();

    // Logged texts but those of every write.
    Texts LoggedTexts() const;

    i64 m_shift = 12345;
};

// What the storage's name leads to after a failure.
enum class Left {
    kOld,     // the file as it was
    kRaised,  // with the clear revision's commit block
    kNew,
};

// The `nth` call of its kind in a squeeze with a backup. In `message`, {P} stands for the path, and
// {E} for the number of the system's error.
struct Step {
    const char* name;
    SystemCall call;
    u32 nth;
    const char* message;
    Left left;
    bool open;              // whether the storage is, afterwards
    bool withLinks = true;  // false: the file system has no second names for files
};

inline std::ostream& operator<<(std::ostream& out, const Step& step) {
    return out << step.name;
}

// Those that do not depend on how the backup is made, in the order in which they happen.
std::span<const Step> StepsOfEverySqueeze();

class SqueezeFailure : public SqueezeTest {
  protected:
    std::string Filled(std::string text) const;
    static FileBytes BytesLeft(Left left);
    Texts Errors() const { return m_log.Texts(K9SYS_LOG_ERROR); }
    // Nothing but the storage file lies in the folder, and that is the old one.
    void ExpectOnlyTheOldFile(Left left);
    void LinkNothing() { Fail(SystemCall::kLink, 1, SystemErrorKind::kNotSupported); }

    const std::string m_ioError = SysErr(SystemErrorKind::kInputOutput);
};

class SqueezeStep : public SqueezeFailure, public ::testing::WithParamInterface<Step> {
  protected:
    u32 FailedSqueeze() {
        if (!GetParam().withLinks) {
            LinkNothing();
        }
        Fail(GetParam().call, GetParam().nth);
        return Squeeze();
    }
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SOLID_SQUEEZE_FIXTURE_H
