// The append command: reads, appends, closes, and tells what is stored.
#include "append_command.h"

#include <fmt/format.h>

#include <memory>
#include <optional>

#include "append_transactions.h"
#include "conn_string.h"
#include "input_file.h"
#include "output.h"
#include "progress_line.h"
#include "record_reader.h"
#include "storage_handle.h"
#include "stored_revision.h"
#include "tool_error.h"

namespace k9repl {

namespace {

std::unique_ptr<RecordReader> MakeReader(const AppendOptions& options, InputFile& input) {
    const RecordLimit limit = RecordLimitOf(options.conn);
    return options.lengthPrefixed ? MakeLengthPrefixedReader(input, limit)
                                  : MakeLineReader(input, limit);
}

InputState AppendAll(RecordReader& reader, AppendTransactions& transactions,
                     ProgressLine& progress) {
    std::string_view data;
    InputState state = InputState::kData;
    while ((state = reader.Next(&data)) == InputState::kData) {
        transactions.Add(data);
        progress.Show(transactions.Totals().records, transactions.Totals().bytes);
    }
    return state;
}

std::string StoredText(std::int64_t lastStored) {
    return lastStored == 0 ? "nothing is stored"
                           : fmt::format("safely stored up to revision {}", lastStored);
}

void PrintSummary(const AppendTotals& totals, double seconds) {
    const double rate = static_cast<double>(totals.bytes) / 1e6 / seconds;
    std::string revisions;
    if (totals.records > 0) {
        revisions = fmt::format("revisions {} to {}, ", totals.firstRev, totals.lastRev);
    }
    Output output(OnInterrupt::kFinish);
    output.Write(fmt::format("appended {} {}, {} bytes, {}in {:.2f} s, {:.1f} MB/s\n",
                             totals.records, totals.records == 1 ? "record" : "records",
                             totals.bytes, revisions, seconds, rate));
    output.Finish();
}

// One run of the command, from the loaded storage to its close.
class AppendRun {
  public:
    explicit AppendRun(const AppendOptions& options)
        : m_storage(options.conn, Access::kWrite),
          m_transactions(m_storage, m_stored, options.perTrans) {
        m_storage.RequireFile("appended to");
        m_stored.Watch(m_storage);
    }

    // Whatever happens to the input, the records before it are committed and the storage closed.
    int Run(RecordReader& reader) {
        InputState end = InputState::kEnd;
        Attempt([&] { end = AppendAll(reader, m_transactions, m_progress); });
        Attempt([&] { m_transactions.Finish(); });
        m_storage.Close();
        m_progress.Clear();
        Attempt([&] { CheckEverythingIsStored(); });
        Attempt([&] { PrintSummaryOfSuccess(); });
        if (m_failure) {
            throw ToolError(fmt::format("{}; {}", m_failure->what(), StoredText(m_stored.Get())));
        }
        if (end == InputState::kInterrupted) {
            throw InterruptError("; " + StoredText(m_stored.Get()));
        }
        return kExitSuccess;
    }

  private:
    // The first failure is the one that is told.
    template <typename Step>
    void Attempt(Step step) {
        try {
            step();
        } catch (const ToolError& error) {
            if (!m_failure) {
                m_failure = error;
            }
        }
    }

    void PrintSummaryOfSuccess() const {
        if (!m_failure) {
            PrintSummary(m_transactions.Totals(), m_progress.Seconds());
        }
    }

    void CheckEverythingIsStored() const {
        const std::int64_t lastRev = m_transactions.Totals().lastRev;
        if (m_stored.Get() < lastRev) {
            throw LoggedError(
                fmt::format("flush up to revision {} while closing {}", lastRev, m_storage.Name()));
        }
    }

    StoredRevision m_stored;  // outlives the storage, whose close still reports to it
    StorageHandle m_storage;
    AppendTransactions m_transactions;
    ProgressLine m_progress;
    std::optional<ToolError> m_failure;
};

}  // namespace

int RunAppend(const AppendOptions& options) {
    InputFile input(options.input);
    if (options.create) {
        CreateStorage(options.conn);
    }
    AppendRun run(options);
    const std::unique_ptr<RecordReader> reader = MakeReader(options, input);
    return run.Run(*reader);
}

}  // namespace k9repl
