// Writes records in one of the formats of cat.
#ifndef K9EREPL_K9REPL_RECORD_PRINTER_H
#define K9EREPL_K9REPL_RECORD_PRINTER_H

#include <k9erepl/storage.h>

#include "output.h"

namespace k9repl {

enum class RecordFormat {
    kRaw,             // the data of one record behind the other, nothing between them
    kLines,           // the data and a newline
    kJson,            // an object a line: rev, userWord, size, and data or base64
    kLengthPrefixed,  // 32-bit little-endian length, data
};

class RecordPrinter {
  public:
    RecordPrinter(Output& output, RecordFormat format) : m_output(output), m_format(format) {}

    // False when the output has failed.
    bool Print(const K9eReplRec& record);

  private:
    Output& m_output;
    const RecordFormat m_format;
};

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_RECORD_PRINTER_H
