// Storage and index files out of fuzz inputs, opened and judged on a disk in memory. Used by the
// targets whose inputs are files.
#ifndef K9EREPL_TESTS_FUZZ_HOSTILE_INPUT_H
#define K9EREPL_TESTS_FUZZ_HOSTILE_INPUT_H

#include "fuzz/target.h"
#include "reliability/hostile_opening.h"

namespace k9erepl::fuzz {

// The settings that `choice` stands for: where the content lies, cache, block size, writer.
model::Settings SettingsOf(std::uint8_t choice);

// Opens, loads, enumerates, appends, opens again, and compares with the slow reader; ends the
// process when something is wrong.
void Examine(const reliability::HostileCase& hostile);

}  // namespace k9erepl::fuzz

#endif  // K9EREPL_TESTS_FUZZ_HOSTILE_INPUT_H
