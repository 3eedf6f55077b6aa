// k9repl: appends to, prints, checks and clears replication storages from the command line. This
// file parses the command line, runs the command that it names, and prints the failure if the
// command ends with one.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <exception>
#include <limits>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "conn_string.h"
#include "help_texts.h"
#include "interrupts.h"
#include "library_log.h"
#include "output.h"
#include "streams.h"
#include "tool_error.h"

namespace k9repl {

namespace {

// Takes decimal digits and nothing else: a typing error must not silently become another number.
template <typename T>
bool ParseNumber(const std::string& text, T least, T* number) {
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, *number);
    return result.ec == std::errc() && result.ptr == end && *number >= least;
}

template <typename T>
CLI::Option* AddNumber(CLI::App& command, const std::string& name, T least, T& number,
                       const std::string& help) {
    const auto check = [least](const std::string& given) {
        T ignored{};
        return ParseNumber(given, least, &ignored)
                   ? std::string()
                   : fmt::format("{} is no number from {} to {}", given, least,
                                 std::numeric_limits<T>::max());
    };
    const auto take = [least, &number](const std::string& given) {
        ParseNumber(given, least, &number);
    };
    return command.add_option_function<std::string>(name, take, help)
        ->check(CLI::Validator(check, ""));
}

CLI::Option* AddConn(CLI::App& command, std::string& conn) {
    return command
        .add_option("--conn", conn, "Connection string of the storage, such as 'file=log.edb'")
        ->required()
        ->type_name("CONN")
        ->check(
            CLI::Validator([](const std::string& given) { return WhatIsWrongWith(given); }, ""));
}

// The words that an option takes, and what each of them stands for.
template <typename T>
using Words = std::vector<std::pair<std::string, T>>;

const Words<RecordFormat> kRecordFormats = {{"lines", RecordFormat::kLines},
                                            {"raw", RecordFormat::kRaw},
                                            {"json", RecordFormat::kJson},
                                            {"length-prefixed", RecordFormat::kLengthPrefixed}};
const Words<bool> kFactFormats = {{"text", false}, {"json", true}};
const Words<ClearMode> kClearModes = {{"logical", ClearMode::kLogical},
                                      {"squeeze", ClearMode::kSqueeze},
                                      {"squeeze-backup", ClearMode::kSqueezeBackup},
                                      {"mark", ClearMode::kMark}};

template <typename T>
CLI::Option* AddWord(CLI::App& command, const std::string& name, const Words<T>& words, T& value) {
    std::vector<std::string> names;
    for (const auto& [word, meaning] : words) {
        names.push_back(word);
    }
    const auto take = [&words, &value](const std::string& given) {
        const auto found = std::find_if(words.begin(), words.end(),
                                        [&](const auto& entry) { return entry.first == given; });
        value = found->second;
    };
    return command
        .add_option_function<std::string>(name, take,
                                          fmt::format("One of: {}", fmt::join(names, ", ")))
        ->check(CLI::IsMember(names).description(""));
}

// The first of `formats` is the default.
template <typename T>
void AddFormat(CLI::App& command, const Words<T>& formats, T& format) {
    AddWord(command, "--format", formats, format)
        ->type_name("FORMAT")
        ->default_str(formats.front().first);
}

CLI::App* AddAppend(CLI::App& app, AppendOptions& options) {
    CLI::App* command = app.add_subcommand("append", kAppendHelp);
    AddConn(*command, options.conn);
    command->add_option("FILE", options.input, "File to read; - is standard input")
        ->type_name("")
        ->capture_default_str();
    command->add_flag("--length-prefixed", options.lengthPrefixed,
                      "Records are a 32-bit little-endian length and that many bytes");
    AddNumber(*command, "--per-trans", std::uint32_t{1}, options.perTrans, "Records a transaction")
        ->type_name("N")
        ->default_str(std::to_string(options.perTrans));
    AddNumber(*command, "--commit-after", std::uint32_t{1}, options.commitAfterMs,
              "Milliseconds after which records are stored, though no more come")
        ->type_name("MS")
        ->default_str(std::to_string(options.commitAfterMs));
    command->add_flag("--ack", options.ack, "Print each revision on a line once it is stored");
    command->add_flag(
        "--accept-damage", options.acceptDamage,
        "Append to a file that is damaged in the middle, behind its last good record");
    command->add_flag("--create", options.create, "Make the storage when it is not there");
    command->footer(kAppendFooter);
    return command;
}

CLI::App* AddCat(CLI::App& app, CatOptions& options) {
    CLI::App* command = app.add_subcommand("cat", kCatHelp);
    AddConn(*command, options.conn);
    AddNumber(*command, "--from", std::int64_t{0}, options.from,
              "First revision (default: the oldest)")
        ->type_name("R");
    AddNumber(*command, "--to", std::int64_t{0}, options.to, "Last revision (default: the newest)")
        ->type_name("R");
    AddFormat(*command, kRecordFormats, options.format);
    command->footer(kCatFooter);
    return command;
}

CLI::App* AddStat(CLI::App& app, StatOptions& options) {
    CLI::App* command = app.add_subcommand("stat", kStatHelp);
    AddConn(*command, options.conn);
    AddFormat(*command, kFactFormats, options.json);
    command->footer(kStatFooter);
    return command;
}

CLI::App* AddVerify(CLI::App& app, VerifyOptions& options) {
    CLI::App* command = app.add_subcommand("verify", kVerifyHelp);
    AddConn(*command, options.conn);
    AddFormat(*command, kFactFormats, options.json);
    command->footer(kVerifyFooter);
    return command;
}

CLI::App* AddClear(CLI::App& app, ClearOptions& options) {
    CLI::App* command = app.add_subcommand("clear", kClearHelp);
    AddConn(*command, options.conn);
    AddNumber(*command, "--to", std::int64_t{0}, options.to, "The first revision that is kept")
        ->required()
        ->type_name("R");
    AddWord(*command, "--mode", kClearModes, options.mode)->required()->type_name("MODE");
    command->add_flag("--all", options.all, "R may be above the next revision; asks first");
    command->add_flag("--yes", options.yes, "Do not ask");
    command->footer(kClearFooter);
    return command;
}

CLI::App* AddTruncate(CLI::App& app, TruncateOptions& options) {
    CLI::App* command = app.add_subcommand("truncate", kTruncateHelp);
    AddConn(*command, options.conn);
    command->add_flag("--yes", options.yes, "Do not ask");
    command->footer(kTruncateFooter);
    return command;
}

// Prints the help if the user asked for it, otherwise what is wrong with the command line. Returns
// the exit status.
int Explain(const CLI::App& app, const CLI::ParseError& error) {
    if (error.get_exit_code() == kExitSuccess) {
        std::ostringstream help;
        (void)app.exit(error, help, help);
        Output output(OnInterrupt::kStop);
        output.Write(help.str());
        output.Finish();
        return kExitSuccess;
    }
    const std::vector<CLI::App*> commands = app.get_subcommands();
    const std::string name = commands.empty() ? "k9repl" : "k9repl " + commands.front()->get_name();
    PrintMessage(fmt::format("{}: {}; see {} --help\n", name, error.what(), name));
    return kExitUsage;
}

// Runs the command and returns the exit status. As soon as the command is known, *toolName receives
// its name for messages, such as "k9repl append". If the command line is wrong, prints why on
// standard error and returns kExitUsage; throws every other failure as a ToolError.
int RunCommandLine(int argc, const char* const* argv, std::string* toolName) {
    AppendOptions appendOptions;
    CatOptions catOptions;
    StatOptions statOptions;
    VerifyOptions verifyOptions;
    ClearOptions clearOptions;
    TruncateOptions truncateOptions;
    CLI::App app(kMainHelp, "k9repl");
    app.footer(kMainFooter);
    app.set_version_flag("--version", "k9repl " K9REPL_VERSION);
    app.require_subcommand(1);
    CLI::App* append = AddAppend(app, appendOptions);
    CLI::App* cat = AddCat(app, catOptions);
    CLI::App* stat = AddStat(app, statOptions);
    CLI::App* verify = AddVerify(app, verifyOptions);
    CLI::App* clear = AddClear(app, clearOptions);
    CLI::App* truncate = AddTruncate(app, truncateOptions);
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
    if (stat->parsed()) {
        return RunStat(statOptions);
    }
    if (verify->parsed()) {
        return RunVerify(verifyOptions);
    }
    if (clear->parsed()) {
        return RunClear(clearOptions);
    }
    return truncate->parsed() ? RunTruncate(truncateOptions) : kExitUsage;
}

}  // namespace

}  // namespace k9repl

int main(int argc, char** argv) {
    k9repl::PrepareStandardStreams();
    std::string toolName = "k9repl";
    try {
        k9repl::CatchInterrupts();
        k9repl::LibraryLog::Instance().Catch();
        const int exitStatus = k9repl::RunCommandLine(argc, argv, &toolName);
        k9repl::LibraryLog::Instance().TellRest(toolName);
        return exitStatus;
    } catch (const k9repl::ToolError& error) {
        k9repl::PrintMessage(fmt::format("{}: {}\n", toolName, error.what()));
        return error.ExitStatus();
    } catch (const std::exception& error) {
        k9repl::PrintMessage(fmt::format("{}: failed: {}\n", toolName, error.what()));
        return k9repl::kExitFailure;
    }
}
