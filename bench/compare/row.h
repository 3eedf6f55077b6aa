// What bench/compare measures: rows, each of which gives one piece of work to several contenders.
// rows_*.cpp make the rows, runner.cpp runs them, the reports print what came out.
#ifndef K9EREPL_BENCH_COMPARE_ROW_H
#define K9EREPL_BENCH_COMPARE_ROW_H

#include <functional>
#include <string>
#include <vector>

#include "platform/int_types.h"

namespace k9erepl::bench {

// What the command line says about all rows.
struct Context {
    std::string memoryFolder;  // for files whose disk must not count; best in memory
    std::string diskFolder;    // for work that waits for the disk
    bool quick = false;        // a tenth of the work
    bool big = false;          // also the files of 5 GB

    i64 Scaled(i64 count) const { return quick ? count / 10 : count; }
};

enum class Role {
    kLimit,    // the physical limit: the ratios of the row's other contenders are to it
    kOurs,     // this library; the marks hold for it
    kVariant,  // this library with other settings, or used in another way
    kPeer,     // another library
};

// The role in one word, for reports that machines read.
inline const char* NameOf(Role role) {
    switch (role) {
        case Role::kLimit:
            return "limit";
        case Role::kOurs:
            return "ours";
        case Role::kVariant:
            return "variant";
        case Role::kPeer:
            break;
    }
    return "peer";
}

struct Contender {
    std::string name;
    Role role = Role::kOurs;
    // Runs in a process of its own. Returns the cost in the row's unit; less is better.
    std::function<double()> measure;
};

// A bound for this library's median.
struct Mark {
    enum class Kind {
        kTimesLimit,  // at most `value` times the limit
        kAtMost,      // at most `value`, in the row's unit
        kFasterThan,  // at least `value` times the rate of the peer
    };
    Kind kind = Kind::kTimesLimit;
    double value = 0;
    std::string peer;  // its name; empty unless kFasterThan
};

struct Row {
    std::string id;     // for --rows; rows of a group begin with the same word
    std::string title;  // for the tables
    std::string unit;
    std::string limit;  // what the limit does
    std::vector<Contender> contenders;
    std::vector<Mark> marks;
    // Makes files that all measurements of the row share; runs once before them, in the process
    // that starts them. May be empty.
    std::function<void()> prepare;
};

using Rows = std::vector<Row>;

// The groups of rows, in the order of the table.
void AddAppendRows(const Context& context, Rows* rows);
void AddScanRows(const Context& context, Rows* rows);
void AddRangeRows(const Context& context, Rows* rows);
void AddClearRows(const Context& context, Rows* rows);
void AddReopenRows(const Context& context, Rows* rows);
void AddDurableRows(const Context& context, Rows* rows);
void AddThreadRows(const Context& context, Rows* rows);
void AddIndexRows(const Context& context, Rows* rows);
void AddMemoryRows(const Context& context, Rows* rows);

}  // namespace k9erepl::bench

#endif  // K9EREPL_BENCH_COMPARE_ROW_H
