// The append command: reads the input, appends its records, closes the storage and reports what is
// stored.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>

#include "append_transactions.h"
#include "commands.h"
#include "conn_string.h"
#include "output.h"
#include "record_reader.h"
#include "storage_handle.h"
#include "streams.h"
#include "tool_error.h"

namespace k9repl {

namespace {

std::unique_ptr<RecordReader> MakeReader(const AppendOptions& options, InputFile& input) {
    const RecordLimit limit = RecordLimitOf(options.conn);
    return options.lengthPrefixed ? MakeLengthPrefixedReader(input, limit)
                                  : MakeLineReader(input, limit);
}

std::string StoredText(std::int64_t lastStored) {
    return lastStored == 0 ? "nothing is stored"
                           : fmt::format("safely stored up to revision {}", lastStored);
}

std::string Summary(const AppendTotals& totals, double seconds) {
    const double rate = static_cast<double>(totals.bytes) / 1e6 / seconds;
    std::string revisions;
    if (totals.records > 0) {
        revisions = fmt::format("revisions {} to {}, ", totals.firstRev, totals.lastRev);
    }
    return fmt::format("appended {} {}, {} bytes, {}in {:.2f} s, {:.1f} MB/s\n", totals.records,
                       totals.records == 1 ? "record" : "records", totals.bytes, revisions, seconds,
                       rate);
}

// Prints the lines of --ack: each revision of this run, once it is stored.
class Acknowledgements {
  public:
    // `loadedRev` is the last revision that the storage was loaded with, 0 if there is none.
    // Nothing up to it is acknowledged.
    explicit Acknowledgements(std::int64_t loadedRev) : m_lastRev(loadedRev) {}

    bool IsBehind(const AppendTotals& totals) const { return m_lastRev < totals.lastRev; }

    // Throws ToolError if a line cannot be printed. If the reader of the lines is gone, prints
    // nothing more.
    void Print(const AppendTotals& totals, const StoredRevision& stored) {
        const std::int64_t upTo = std::min(stored.Get(), totals.lastRev);
        if (m_lastRev >= upTo) {
            return;
        }
        for (std::int64_t rev = std::max(m_lastRev + 1, totals.firstRev); rev <= upTo; ++rev) {
            m_output.Write(std::to_string(rev) + '\n');
        }
        m_lastRev = upTo;
        m_output.Finish();
    }

  private:
    Output m_output{OnInterrupt::kFinish};
    std::int64_t m_lastRev;  // the last one that was printed or needs no line; 0 if there is none
};

// One run of the command, from the loaded storage to its close.
class AppendRun {
  public:
    explicit AppendRun(const AppendOptions& options)
        : m_storage(options.conn, Access::kWrite),
          m_transactions(m_storage, m_stored, options.perTrans,
                         std::chrono::milliseconds(options.commitAfterMs)) {
        m_storage.RequireFile("appended to");
        RefuseDamage(options.acceptDamage);
        m_stored.Watch(m_storage);
        if (options.ack) {
            m_acks.emplace(m_stored.Get());
        }
    }

    // Whatever goes wrong with the input, the records that were read before that are committed, and
    // the storage is closed.
    int Run(RecordReader& reader) {
        InputState end = InputState::kEnd;
        Attempt([&] { end = AppendAll(reader); });
        Attempt([&] { m_transactions.Finish(); });
        m_storage.Close();
        m_progress.Clear();
        Attempt([&] { CheckEverythingIsStored(); });
        Attempt([&] { PrintAcks(); });
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
    // Appended records would overwrite the data after the damage, so the user has to allow that.
    void RefuseDamage(bool accept) const {
        const auto damage = m_storage.TakeDamage();
        if (!damage) {
            return;
        }
        const std::string told = Describe(*damage, m_storage.Path());
        if (!accept) {
            throw ToolError(told + "; nothing was appended: --accept-damage allows it",
                            kExitDamaged);
        }
        PrintMessage(fmt::format("k9repl append: note: {}\n", told));
    }

    InputState AppendAll(RecordReader& reader) {
        std::string_view data;
        for (;;) {
            const InputState state = reader.Next(&data, NextDeadline());
            if (state == InputState::kData) {
                m_transactions.Add(data);
                m_progress.Show(m_transactions.Totals().records, m_transactions.Totals().bytes);
            } else if (state != InputState::kTimedOut) {
                return state;
            }
            m_transactions.CommitWhenDue();
            PrintAcks();
        }
    }

    // The library may store a revision on one of its own threads. While we wait for such a
    // revision, look every 20 ms whether it has been stored.
    Deadline NextDeadline() const {
        constexpr auto kLookEvery = std::chrono::milliseconds(20);
        const bool waits = m_acks && m_acks->IsBehind(m_transactions.Totals());
        return waits ? std::min(m_transactions.Due(), Deadline::clock::now() + kLookEvery)
                     : m_transactions.Due();
    }

    void PrintAcks() {
        if (m_acks) {
            m_acks->Print(m_transactions.Totals(), m_stored);
        }
    }

    // Keeps the first failure, which is the one that the message names.
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

    // With --ack, standard output carries revisions only, so the summary goes to standard error.
    void PrintSummaryOfSuccess() const {
        if (m_failure) {
            return;
        }
        const std::string summary = Summary(m_transactions.Totals(), m_progress.Seconds());
        if (m_acks) {
            PrintMessage(summary);
            return;
        }
        Output output(OnInterrupt::kFinish);
        output.Write(summary);
        output.Finish();
    }

    void CheckEverythingIsStored() const {
        const std::int64_t lastRev = m_transactions.Totals().lastRev;
        if (m_stored.Get() < lastRev) {
            throw LoggedError(
                fmt::format("flush up to revision {} while closing {}", lastRev, m_storage.Name()));
        }
    }

    StoredRevision m_stored;  // outlives m_storage, which still reports to it while it closes
    StorageHandle m_storage;
    AppendTransactions m_transactions;
    ProgressLine m_progress;
    std::optional<Acknowledgements> m_acks;  // empty without --ack
    std::optional<ToolError> m_failure;      // the first failure; empty if there is none
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
