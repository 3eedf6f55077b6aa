// The cat command: enumerates the records and prints them in one of its formats.
#include <fmt/format.h>
#include <k9erepl/storage.h>

#include <cstdint>
#include <exception>
#include <string>
#include <string_view>

#include "commands.h"
#include "interrupts.h"
#include "output.h"
#include "record_json.h"
#include "storage_handle.h"
#include "tool_error.h"

namespace k9repl {

namespace {

std::string_view DataOf(const K9eReplRec& record) {
    return {reinterpret_cast<const char*>(record.data), record.dataSize};
}

std::string LengthOf(const K9eReplRec& record) {
    std::string length;
    for (unsigned shift = 0; shift < 32; shift += 8) {
        length += static_cast<char>(record.dataSize >> shift & 0xFFU);
    }
    return length;
}

// Writes records in one of the formats.
class RecordPrinter {
  public:
    RecordPrinter(Output& output, RecordFormat format) : m_output(output), m_format(format) {}

    // Returns false if the output has failed.
    bool Print(const K9eReplRec& record);

  private:
    Output& m_output;
    const RecordFormat m_format;
    std::string m_line;  // of JSON; its memory serves every record
};

bool RecordPrinter::Print(const K9eReplRec& record) {
    switch (m_format) {
        case RecordFormat::kRaw:
            return m_output.Write(DataOf(record));
        case RecordFormat::kLines:
            return m_output.Write(DataOf(record)) && m_output.Write("\n");
        case RecordFormat::kJson:
            m_line.clear();
            AppendJson(record, &m_line);
            return m_output.Write(m_line);
        case RecordFormat::kLengthPrefixed:
            return m_output.Write(LengthOf(record)) && m_output.Write(DataOf(record));
    }
    return false;
}

struct PrintingContext {
    RecordPrinter& printer;
    bool interrupted = false;
    std::exception_ptr failure = nullptr;  // must not pass through the library, so it is kept here
};

// Stops the enumeration on an interrupt, if the output fails, and if the reader of the output is
// gone. The output itself remembers why it stopped.
std::uint32_t K9EREPL_CALL PrintRecord(const K9eReplRec* record, void* cbContext) {
    auto& context = *static_cast<PrintingContext*>(cbContext);
    context.interrupted = InterruptSignal() != 0;
    if (context.interrupted) {
        return RC_ENUM_STOP;
    }
    try {
        return context.printer.Print(*record) ? RC_OK : RC_ENUM_STOP;
    } catch (...) {
        context.failure = std::current_exception();
        return RC_ENUM_STOP;
    }
}

}  // namespace

int RunCat(const CatOptions& options) {
    if (options.from > options.to) {
        throw ToolError(fmt::format("--from {} is above --to {}", options.from, options.to),
                        kExitUsage);
    }
    StorageHandle storage(options.conn, Access::kRead);
    Output output(OnInterrupt::kStop);
    RecordPrinter printer(output, options.format);
    PrintingContext context{printer};
    const std::uint32_t code =
        K9eReplStorageEnumRecords(storage.Get(), options.from, options.to, &PrintRecord, &context);
    if (context.failure) {
        std::rethrow_exception(context.failure);
    }
    if (context.interrupted) {
        throw InterruptError();
    }
    output.Finish();  // prints what was read before a failure, too
    if (!output.ReaderIsGone()) {
        storage.Check(code, "read");
    }
    if (const auto damage = storage.TakeDamage()) {
        throw ToolError(Describe(*damage, storage.Path()) + " and are not printed", kExitDamaged);
    }
    return kExitSuccess;
}

}  // namespace k9repl
