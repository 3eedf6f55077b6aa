// What the tests of the squeeze share: a file of three transactions, the squeeze that keeps the
// second half of it, and words for the files that it leaves.
#ifndef K9EREPL_TESTS_SOLID_SQUEEZE_FIXTURE_H
#define K9EREPL_TESTS_SOLID_SQUEEZE_FIXTURE_H

#include <functional>
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

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SOLID_SQUEEZE_FIXTURE_H
