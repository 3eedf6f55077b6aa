// The commands, their options and the help that teaches them.
#include "command_line.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "append_command.h"
#include "cat_command.h"
#include "message.h"
#include "stat_command.h"
#include "tool_error.h"

namespace k9repl {

namespace {

constexpr const char* kMainHelp =
    "Looks into and feeds a replication storage: a file of records with rising revisions.\n";

constexpr const char* kMainFooter = R"(
A storage is named and configured by a connection string, items KEY=VALUE separated by ';':
  file=PATH                 the storage file; the index file lies beside it
  block_size=BYTES          memory block; a record has at most BYTES-24 of data (default 1048672)
  flush_trans_num=N         transactions a flush (default 10)
  force_flush=yes           each flush reaches the disk, not only the system (default no)
  cache_type=AllInMem;flush_mode=NoFlush;file=PATH
                            only looks: reads the file into memory and writes nothing
docs/configuration.md has all of them. Put the string in quotes: a shell splits it at ';'.

Examples:
  k9repl append --create --conn 'file=/tmp/log.edb' /var/log/dpkg.log
  k9repl cat --conn 'file=/tmp/log.edb' --from 10 --to 20
  k9repl stat --conn 'file=/tmp/log.edb'
  k9repl COMMAND --help

Exit status: 0 success, 1 failure, 2 wrong command line, 128+N interrupted by signal N.
The cause of a failure is told on standard error. K9SYS_LOG=info prints the library's log there.)";

constexpr const char* kAppendHelp = "Appends records from a file or a pipe to a storage";

constexpr const char* kAppendFooter = R"(
Each line of FILE, or of standard input, becomes one record, without its newline.
An empty line is a record without data; bytes behind the last newline are a record, too.
On SIGINT, SIGTERM or SIGHUP the records read so far are committed and the storage is closed.
After a failure the records before it are committed, and the message tells the last revision that
is safely stored. "Stored" is what the settings make of it: without force_flush=yes it survives
the end of this process, not a power cut.

Examples:
  k9repl append --create --conn 'file=log.edb' /var/log/dpkg.log
  journalctl -f | k9repl append --conn 'file=log.edb;force_flush=yes' --per-trans 1
  k9repl cat --conn 'file=a.edb' --format length-prefixed |
      k9repl append --create --conn 'file=b.edb' --length-prefixed)";

constexpr const char* kCatHelp = "Prints the records of a storage in the order of revisions";

constexpr const char* kCatFooter = R"(
Formats:
  lines            the data and a newline
  raw              the data, nothing between records
  json             an object a line: {"rev":1,"userWord":0,"size":5,"data":"hello"};
                   data that is no valid UTF-8 comes as "base64" instead of "data"
  length-prefixed  32-bit little-endian length, then the data; append --length-prefixed reads it

Examples:
  k9repl cat --conn 'file=log.edb'
  k9repl cat --conn 'file=log.edb' --from 100 --to 199 --format json
  k9repl cat --conn 'cache_type=AllInMem;flush_mode=NoFlush;file=log.edb' | sha256sum)";

constexpr const char* kStatHelp = "Prints revisions, marks, file sizes and the number of blocks";

constexpr const char* kStatFooter = R"(
"next revision" is the one that the next record gets, "oldest revision" that of the first record
that is still served. "none" stands for what does not exist.

Examples:
  k9repl stat --conn 'file=log.edb'
  k9repl stat --conn 'file=log.edb' --format json)";

// From `least` to the largest number of its type.
template <typename T>
CLI::Validator From(T least) {
    return CLI::Range(least, std::numeric_limits<T>::max()).description("");
}

CLI::Option* AddConn(CLI::App& command, std::string& conn) {
    return command
        .add_option("--conn", conn, "Connection string of the storage, such as 'file=log.edb'")
        ->required()
        ->type_name("CONN");
}

// One of the names of `formats`, the first of which is the default.
template <typename T>
using FormatNames = std::vector<std::pair<std::string, T>>;

const FormatNames<RecordFormat> kRecordFormats = {
    {"lines", RecordFormat::kLines},
    {"raw", RecordFormat::kRaw},
    {"json", RecordFormat::kJson},
    {"length-prefixed", RecordFormat::kLengthPrefixed}};
const FormatNames<bool> kStatFormats = {{"text", false}, {"json", true}};

template <typename T>
void AddFormat(CLI::App& command, const FormatNames<T>& formats, T& format) {
    std::vector<std::string> names;
    for (const auto& [name, value] : formats) {
        names.push_back(name);
    }
    const auto take = [&formats, &format](const std::string& given) {
        const auto found = std::find_if(formats.begin(), formats.end(),
                                        [&](const auto& entry) { return entry.first == given; });
        format = found->second;
    };
    command
        .add_option_function<std::string>("--format", take,
                                          fmt::format("One of: {}", fmt::join(names, ", ")))
        ->type_name("FORMAT")
        ->check(CLI::IsMember(names).description(""))
        ->default_str(names.front());
}

CLI::App* AddAppend(CLI::App& app, AppendOptions& options) {
    CLI::App* command = app.add_subcommand("append", kAppendHelp);
    AddConn(*command, options.conn);
    command->add_option("FILE", options.input, "File to read; - is standard input")
        ->type_name("")
        ->capture_default_str();
    command->add_flag("--length-prefixed", options.lengthPrefixed,
                      "Records are a 32-bit little-endian length and that many bytes");
    command->add_option("--per-trans", options.perTrans, "Records a transaction")
        ->type_name("N")
        ->check(From(std::uint32_t{1}))
        ->capture_default_str();
    command->add_flag("--create", options.create, "Make the storage when it is not there");
    command->footer(kAppendFooter);
    return command;
}

CLI::App* AddCat(CLI::App& app, CatOptions& options) {
    CLI::App* command = app.add_subcommand("cat", kCatHelp);
    AddConn(*command, options.conn);
    command->add_option("--from", options.from, "First revision (default: the oldest)")
        ->type_name("R")
        ->check(From(std::int64_t{0}));
    command->add_option("--to", options.to, "Last revision (default: the newest)")
        ->type_name("R")
        ->check(From(std::int64_t{0}));
    AddFormat(*command, kRecordFormats, options.format);
    command->footer(kCatFooter);
    return command;
}

CLI::App* AddStat(CLI::App& app, StatOptions& options) {
    CLI::App* command = app.add_subcommand("stat", kStatHelp);
    AddConn(*command, options.conn);
    AddFormat(*command, kStatFormats, options.json);
    command->footer(kStatFooter);
    return command;
}

// Prints the help that was asked for, or what is wrong with the command line.
int Explain(const CLI::App& app, const CLI::ParseError& error) {
    if (error.get_exit_code() == kExitSuccess) {
        return app.exit(error);
    }
    const std::vector<CLI::App*> commands = app.get_subcommands();
    const std::string name = commands.empty() ? "k9repl" : "k9repl " + commands.front()->get_name();
    PrintMessage(fmt::format("{}: {}; see {} --help\n", name, error.what(), name));
    return kExitUsage;
}

}  // namespace

int RunCommandLine(int argc, const char* const* argv, std::string* toolName) {
    AppendOptions appendOptions;
    CatOptions catOptions;
    StatOptions statOptions;
    CLI::App app(kMainHelp, "k9repl");
    app.footer(kMainFooter);
    app.set_version_flag("--version", "k9repl " K9REPL_VERSION);
    app.require_subcommand(1);
    CLI::App* append = AddAppend(app, appendOptions);
    CLI::App* cat = AddCat(app, catOptions);
    CLI::App* stat = AddStat(app, statOptions);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return Explain(app, error);
    }
    *toolName = "k9repl " + app.get_subcommands().front()->get_name();
    if (append->parsed()) {
        return RunAppend(appendOptions);
    }
    if (cat->parsed()) {
        return RunCat(catOptions);
    }
    return stat->parsed() ? RunStat(statOptions) : kExitUsage;
}

}  // namespace k9repl
