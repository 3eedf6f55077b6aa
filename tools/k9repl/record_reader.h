// Cuts the input of append into records: lines, or data that follows its length. Only the append
// command uses it.
#ifndef K9EREPL_K9REPL_RECORD_READER_H
#define K9EREPL_K9REPL_RECORD_READER_H

#include <memory>
#include <string_view>

#include "conn_string.h"
#include "streams.h"

namespace k9repl {

class RecordReader {
  public:
    virtual ~RecordReader() = default;
    // kData: *data receives the next record, valid until the next call. kTimedOut: no whole record
    // arrived before the deadline; a part of one is kept for the next call. kInterrupted: every
    // whole record that had arrived was returned; a part of one is dropped. kEnd: there are no more
    // records. Throws a ToolError that names the input and the place of the fault.
    virtual InputState Next(std::string_view* data, Deadline deadline) = 0;
};

// Each line is a record, without its newline. Bytes after the last newline are a record, too. A
// line of more bytes than the limit is an error.
std::unique_ptr<RecordReader> MakeLineReader(InputFile& file, const RecordLimit& limit);

// Each record is its length, 32 bits in little-endian order, and then its bytes. A length above the
// limit is an error, and so is an input that ends inside a record.
std::unique_ptr<RecordReader> MakeLengthPrefixedReader(InputFile& file, const RecordLimit& limit);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_RECORD_READER_H
