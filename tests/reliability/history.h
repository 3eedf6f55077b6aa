// What one run of a storage did to the disk, call by call, and what the storage held at each
// moment: everything that is needed to make crash images of it and to judge what they open as.
#ifndef K9EREPL_TESTS_RELIABILITY_HISTORY_H
#define K9EREPL_TESTS_RELIABILITY_HISTORY_H

#include <string>
#include <vector>

#include "model/content.h"
#include "model/settings.h"
#include "reliability/disk_image.h"

namespace k9erepl::reliability {

// Places in History::states, both included.
struct StateRange {
    std::size_t low = 0;
    std::size_t high = 0;
};

// The end of an operation. States are counted by their places.
struct Mark {
    std::size_t changes = 0;       // made so far
    std::size_t begun = 0;         // the state that the operation leads to
    std::size_t acknowledged = 0;  // written, and the client was told so
    std::size_t flushed = 0;       // the same, and on the disk, as the settings promise
};

struct History {
    model::Settings settings;
    std::string moreSettings;  // win; end with ';' unless empty
    u32 recordSize = 0;        // bytes of data of every record; 0: they differ
    DiskImage base;            // everything in it is durable
    Changes changes;
    std::vector<model::Content> states;  // of the storage file; the first is that of the base
    std::vector<Mark> marks;             // the first at no change
    std::string problem;  // what the library answered otherwise than the model; empty: nothing

    std::string ConnString() const;
    // What a storage may hold when only the first `changes` changes were made, and perhaps a part
    // of the next one, because the process was killed.
    StateRange AfterKill(std::size_t changes, bool partOfNext = false) const;
    // The same after a power cut, of which only flushed changes are sure to survive.
    StateRange AfterPowerCut(std::size_t changes) const;

  private:
    std::size_t BegunAt(std::size_t changes) const;
};

// The storage file of every history.
std::string StoragePath();

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_HISTORY_H
