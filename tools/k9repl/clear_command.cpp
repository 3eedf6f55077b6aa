// The clear command: reads the facts of the storage, clears, reads them again and prints what
// changed. The library's information messages say how far a squeeze has come, so the command can
// show its progress.
#include <fmt/format.h>
#include <k9erepl/storage.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "commands.h"
#include "files_beside.h"
#include "interrupts.h"
#include "library_log.h"
#include "output.h"
#include "removal.h"
#include "storage_facts.h"
#include "storage_handle.h"
#include "system.h"
#include "tool_error.h"

namespace k9repl {

namespace {

bool Squeezes(ClearMode mode) {
    return mode == ClearMode::kSqueeze || mode == ClearMode::kSqueezeBackup;
}

bool IsAboveNext(const ClearOptions& options, const StorageFacts& facts) {
    return options.mode != ClearMode::kMark && facts.oldestRev && options.to > facts.nextRev;
}

// Asks the user while the storage is closed, so that other processes can use it meanwhile.
void AskFirst(const ClearOptions& options) {
    std::string question;
    {
        const StorageHandle storage(options.conn, Access::kRead);
        const StorageFacts facts = ReadFacts(storage);
        if (!IsAboveNext(options, facts)) {
            return;
        }
        question = fmt::format("Take everything away from {}, revisions {} to {}?", storage.Name(),
                               *facts.oldestRev, facts.nextRev - 1);
    }
    RequireTerminal("clears");
    RequireConfirmation(question);
}

constexpr std::string_view kCopying = "Copying data to temporary file; from offset ";
constexpr std::string_view kSizeToWrite = "size to write ";
constexpr std::string_view kWritten = "Written ";

std::optional<std::uint64_t> LeadingNumber(std::string_view text) {
    std::uint64_t number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() ? std::optional(number) : std::nullopt;
}

std::string InterruptRemark() {
    const int signal = InterruptSignal();
    return signal == 0 ? std::string()
                       : std::string("; ") + InterruptName(signal) +
                             ": finishing the squeeze, once more ends it here";
}

// Shows on the terminal how much a squeeze has copied. As long as the object lives, it listens to
// what the library logs about the copying. It shows nothing if there is no terminal or if the user
// steers the log. There may be one object at a time.
class SqueezeProgress {
  public:
    SqueezeProgress();
    ~SqueezeProgress();
    SqueezeProgress(const SqueezeProgress&) = delete;
    SqueezeProgress& operator=(const SqueezeProgress&) = delete;

  private:
    void OnInformation(std::string_view text) noexcept;
    void Show(std::uint64_t copied);

    ProgressLine m_line;
    std::uint64_t m_total = 0;  // bytes to copy; 0 until the library has logged how many
};

SqueezeProgress::SqueezeProgress() {
    if (m_line.IsVisible()) {
        LibraryLog::Instance().Listen([this](std::string_view text) { OnInformation(text); });
    }
}

SqueezeProgress::~SqueezeProgress() {
    if (m_line.IsVisible()) {
        LibraryLog::Instance().Listen({});
    }
}

void SqueezeProgress::OnInformation(std::string_view text) noexcept {
    if (text.starts_with(kCopying)) {
        const std::size_t at = text.find(kSizeToWrite);
        if (at != std::string_view::npos) {
            m_total = LeadingNumber(text.substr(at + kSizeToWrite.size())).value_or(0);
            Show(0);
        }
    } else if (text.starts_with(kWritten) && m_total != 0) {
        if (const auto copied = LeadingNumber(text.substr(kWritten.size()))) {
            Show(*copied);
        }
    }
}

// The flush to the disk that follows the copying may take as long as the copying itself.
void SqueezeProgress::Show(std::uint64_t copied) {
    const std::string waiting = copied == m_total ? ", waiting for the disk" : "";
    m_line.ShowCopied(copied, m_total, waiting + InterruptRemark());
}

// One run of the command, from the loaded storage to its close.
class ClearRun {
  public:
    explicit ClearRun(const ClearOptions& options)
        : m_options(options), m_storage(options.conn, Access::kWrite) {
        m_storage.RequireFile("done to");
        m_before = ReadFacts(m_storage);
        m_fileBefore = IdentityOf(m_storage.Path());
    }

    int Run() {
        RefuseAboveNext();
        RefuseWhatCannotSqueeze();
        ThrowIfInterrupted("; nothing was changed");
        Clear();
        m_after = ReadFacts(m_storage);
        m_storage.Close();
        m_after.fileSize = FileSize(m_storage.Path());
        PrintReport(FactLine("cleared", Outcome()) + DescribeChange(m_before, m_after) +
                        BackupLine(m_storage.Path(), MadeBackup()),
                    "the clear is done");
        ThrowIfInterrupted("; the clear is done all the same");
        return kExitSuccess;
    }

  private:
    bool MaySqueeze() const { return Squeezes(m_options.mode) && m_options.to < m_before.nextRev; }

    // A typing error in the revision must not remove everything.
    void RefuseAboveNext() const {
        if (!m_options.all && IsAboveNext(m_options, m_before)) {
            throw ToolError(fmt::format("{} is above the next revision, {}, and would take "
                                        "everything away; with --all it does; nothing was changed",
                                        m_options.to, m_before.nextRev),
                            kExitUsage);
        }
    }

    // The library would notice only after it has written the clear revision to the old file.
    void RefuseWhatCannotSqueeze() const {
        const bool removes = m_before.oldestRev && *m_before.oldestRev < m_options.to;
        const std::string obstacle = TemporaryInTheWay(m_storage.Path());
        if (MaySqueeze() && removes && !obstacle.empty()) {
            throw ToolError(fmt::format("cannot squeeze {}: {}", m_storage.Name(), obstacle));
        }
        if (MaySqueeze() && m_before.oldestRev) {
            const std::int64_t kept = std::max(m_options.to, *m_before.oldestRev);
            if (const std::string lack = NoRoomForCopy(m_storage.Path(), kept); !lack.empty()) {
                throw ToolError(fmt::format("cannot squeeze {}: {}; nothing was changed",
                                            m_storage.Name(), lack));
            }
        }
    }

    // Returns the revision to ask the library for. If no record is below the user's revision, this
    // is 0, which clears nothing: the library then squeezes out what was cleared logically before,
    // and does not copy the file if there is no such data.
    std::int64_t EffectiveRev() const {
        const bool removesNothing = m_before.oldestRev && m_options.to <= *m_before.oldestRev;
        return removesNothing && m_options.mode != ClearMode::kMark ? 0 : m_options.to;
    }

    void Clear() {
        std::uint32_t code = RC_OK;
        const std::string obstacle = TemporaryInTheWay(m_storage.Path());
        {
            const SqueezeProgress progress;
            code = K9eReplStorageClearOldRev(m_storage.Get(), EffectiveRev(),
                                             static_cast<std::uint32_t>(m_options.mode));
        }
        if (code != RC_OK) {
            const ToolError error = LibraryError("clear " + m_storage.Name(), code);
            m_storage.Close();
            throw ToolError(error.what() + WhereTheDataIs(obstacle));
        }
    }

    // Returns what follows the message of a failed clear: where the data is now.
    std::string WhereTheDataIs(const std::string& obstacle) const {
        if (const std::string backedUp = MissingButBackedUp(m_storage.Path()); !backedUp.empty()) {
            return "; " + backedUp;
        }
        if (MaySqueeze() && !obstacle.empty()) {
            return "; " + obstacle;
        }
        return "; " + Reopened();
    }

    // Opens the storage again, so that the message says what is really there.
    std::string Reopened() const {
        try {
            const StorageHandle storage(m_options.conn, Access::kRead);
            const StorageFacts now = ReadFacts(storage);
            return fmt::format("the storage is whole, oldest revision {}, next revision {}",
                               now.oldestRev ? std::to_string(*now.oldestRev) : "none",
                               now.nextRev);
        } catch (const ToolError& error) {
            return error.what();
        }
    }

    std::string Outcome() const {
        if (m_options.mode == ClearMode::kMark) {
            return fmt::format("nothing: the clear mark is {} now", m_after.clearMark);
        }
        const bool squeezed = WasSqueezed();
        if (m_after.oldestRev != m_before.oldestRev) {
            return m_after.oldestRev ? fmt::format("the revisions below {}", m_options.to)
                                     : "everything: no record is left";
        }
        const std::string why = m_before.oldestRev
                                    ? fmt::format("the oldest revision, {}, is not below {}",
                                                  *m_before.oldestRev, m_options.to)
                                    : "the storage holds no record";
        return fmt::format("nothing{}: {}", squeezed ? " new, but squeezed" : "", why);
    }

    // A squeeze replaces the storage file by another file.
    bool WasSqueezed() const { return IdentityOf(m_storage.Path()) != m_fileBefore; }
    bool MadeBackup() const { return m_options.mode == ClearMode::kSqueezeBackup && WasSqueezed(); }

    const ClearOptions& m_options;
    StorageHandle m_storage;
    StorageFacts m_before;
    StorageFacts m_after;       // as constructed until the clear has succeeded
    FileIdentity m_fileBefore;  // of the storage file before the clear
};

}  // namespace

int RunClear(const ClearOptions& options) {
    if (options.all && !options.yes) {
        AskFirst(options);
    }
    return ClearRun(options).Run();
}

}  // namespace k9repl
