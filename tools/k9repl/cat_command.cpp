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
    bool interrupted = false;
    std::exception_ptr failure = nullptr;  // carried around the library
};

// A failed output stops the enumeration, too, and so does a reader that went away; the output
// itself remembers why.
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
    output.Finish();  // what was read before a failure is printed
    if (!output.ReaderIsGone()) {
        storage.Check(code, "read");
    }
    if (const auto damage = storage.TakeDamage()) {
        throw ToolError(Describe(*damage, storage.Path()) + " and are not printed", kExitDamaged);
    }
    return kExitSuccess;
}

}  // namespace k9repl
