// The cat command: enumerates and prints.
#include "cat_command.h"

#include <fmt/format.h>

#include <exception>

#include "interrupts.h"
#include "output.h"
#include "storage_handle.h"
#include "tool_error.h"

namespace k9repl {

namespace {

struct PrintingContext {
    RecordPrinter& printer;
    bool stopped = false;                  // by this side: the enumeration's result says nothing
    std::exception_ptr failure = nullptr;  // carried around the library
};

std::uint32_t K9EREPL_CALL PrintRecord(const K9eReplRec* record, void* cbContext) {
    auto& context = *static_cast<PrintingContext*>(cbContext);
    try {
        context.stopped = InterruptSignal() != 0 || !context.printer.Print(*record);
    } catch (...) {
        context.failure = std::current_exception();
        context.stopped = true;
    }
    return context.stopped ? RC_ENUM_STOP : RC_OK;
}

}  // namespace

int RunCat(const CatOptions& options) {
    if (options.from > options.to) {
        throw ToolError(fmt::format("--from {} is above --to {}", options.from, options.to),
                        kExitUsage);
    }
    StorageHandle storage(options.conn);
    Output output;
    RecordPrinter printer(output, options.format);
    PrintingContext context{printer};
    const std::uint32_t code =
        K9eReplStorageEnumRecords(storage.Get(), options.from, options.to, &PrintRecord, &context);
    if (context.failure) {
        std::rethrow_exception(context.failure);
    }
    output.Finish();  // what was read before a failure is printed
    if (context.stopped) {
        const int signal = InterruptSignal();
        throw ToolError(fmt::format("interrupted by {}", InterruptName(signal)),
                        kExitSignalBase + signal);
    }
    storage.Check(code, "read");
    return kExitSuccess;
}

}  // namespace k9repl
