// bench_compare: measures this library beside the physical limit of each piece of work and beside
// other libraries. scripts/bench.sh runs it. This file reads the command line, runs the rows that
// it names and writes the reports.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fstream>

#include "bench_storage.h"
#include "compare/peer.h"
#include "compare/report.h"
#include "compare/row.h"

namespace k9erepl::bench {

namespace {

constexpr const char* kHelp =
    "Measures this library beside the physical limit of each piece of work, such as copying the\n"
    "records and writing them with as few system calls as possible, and beside other libraries.\n"
    "The contenders of a row take turns, each time in a process of its own; the table has medians\n"
    "and 10th and 90th percentiles of the rounds, and the ratio of each median to the limit's.\n"
    "On a busy machine only these ratios mean something.";

constexpr const char* kFooter =
    "Examples:\n"
    "  bench_compare --quick                       every row in a few minutes, roughly\n"
    "  bench_compare --rows append,scan --rounds 21\n"
    "  bench_compare --dir /dev/shm --disk /var/tmp --markdown > table.md\n"
    "  bench_compare --html report.html            the table here, and a page with bars\n"
    "Rows of a group begin with the same word; --rows takes groups and whole names. Most rows "
    "need\n"
    "about 500 MB in --dir, \"reopen\" up to the size in its name. Peers are left out if their\n"
    "Debian packages were not installed when the program was built; scripts/setup.sh peers\n"
    "installs them.";

struct Options {
    Context context;
    std::vector<std::string> rows;  // groups or names; empty: all
    int rounds = 9;
    bool list = false;
    bool json = false;
    bool markdown = false;
    std::string htmlFile;  // empty: none
};

void Describe(CLI::App* app, Options* options) {
    app->footer(kFooter);
    app->add_option("--rows", options->rows, "Only these rows, separated by commas; see --list")
        ->delimiter(',');
    app->add_option("--rounds", options->rounds, "Measurements of each contender")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    app->add_flag("--quick", options->context.quick, "A tenth of the work; 3 rounds if not given");
    app->add_flag("--big", options->context.big, "Also reopen a file of 5 GB");
    app->add_option("--dir", options->context.memoryFolder,
                    "Folder for files whose disk must not count, best one in memory")
        ->capture_default_str();
    app->add_option("--disk", options->context.diskFolder,
                    "Folder for the rows that wait for the disk")
        ->capture_default_str();
    app->add_flag("--list", options->list, "Print the names of the rows and end");
    app->add_flag("--json", options->json, "Print all numbers as JSON instead of the table");
    app->add_flag("--markdown", options->markdown, "Print a Markdown table instead")
        ->excludes("--json");
    app->add_option("--html", options->htmlFile, "Also write a page with bars to this file");
}

Rows AllRows(const Context& context) {
    Rows rows;
    AddAppendRows(context, &rows);
    AddScanRows(context, &rows);
    AddRangeRows(context, &rows);
    AddClearRows(context, &rows);
    AddReopenRows(context, &rows);
    AddDurableRows(context, &rows);
    AddThreadRows(context, &rows);
    AddIndexRows(context, &rows);
    AddMemoryRows(context, &rows);
    return rows;
}

bool IsNamed(const std::string& id, const std::string& name) {
    return id == name || id.starts_with(name + "-");
}

// Removes the rows that were not asked for. Returns a name that stands for no row, or "".
std::string Select(const std::vector<std::string>& names, Rows* rows) {
    for (const std::string& name : names) {
        if (std::none_of(rows->begin(), rows->end(),
                         [&](const Row& row) { return IsNamed(row.id, name); })) {
            return name;
        }
    }
    std::erase_if(*rows, [&](const Row& row) {
        return !names.empty() && std::none_of(names.begin(), names.end(), [&](const auto& name) {
            return IsNamed(row.id, name);
        });
    });
    return "";
}

// Returns false if a contender that must not fail has failed.
bool Run(const Options& options, Rows rows) {
    Report report{options.rounds, options.context.quick, MissingPeers(), {}};
    bool complete = true;
    for (Row& row : rows) {
        report.rows.push_back(RunRow(std::move(row), options.rounds));
        for (const ContenderResult& contender : report.rows.back().contenders) {
            complete = complete && (contender.role == Role::kPeer || !contender.values.empty());
        }
    }
    const std::string text = options.json       ? JsonReport(report)
                             : options.markdown ? MarkdownReport(report)
                                                : TextReport(report);
    const bool printed = std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0;
    Require(printed, "printing the table");
    if (!options.htmlFile.empty()) {
        std::ofstream page(options.htmlFile);
        page << HtmlReport(report);
        page.close();
        Require(!page.fail(), "writing the page");
    }
    return complete;
}

int Main(int argc, char** argv) {
    Options options;
    options.context.memoryFolder = DefaultFolder();
    options.context.diskFolder = DefaultFolder();
    CLI::App app(kHelp, "bench_compare");
    Describe(&app, &options);
    CLI11_PARSE(app, argc, argv);
    if (options.context.quick && app.count("--rounds") == 0) {
        options.rounds = 3;
    }
    Rows rows = AllRows(options.context);
    const std::string unknown = Select(options.rows, &rows);
    if (!unknown.empty()) {
        fmt::print(stderr, "bench_compare: no row is named {}; --list prints the names\n", unknown);
        return 2;
    }
    if (options.list) {
        for (const Row& row : rows) {
            fmt::print("{:<20} {}\n", row.id, row.title);
        }
        return 0;
    }
    return Run(options, std::move(rows)) ? 0 : 1;
}

}  // namespace

}  // namespace k9erepl::bench

int main(int argc, char** argv) {
    try {
        return k9erepl::bench::Main(argc, argv);
    } catch (const std::exception& failure) {
        (void)std::fprintf(stderr, "bench_compare: %s\n", failure.what());
        return 1;
    }
}
