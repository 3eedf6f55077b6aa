// Fuzz target: the first byte chooses the settings, the others are a storage file. The library must
// make of it what the slow reader makes of it, and go on from there.
#include "fuzz/hostile_input.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    k9erepl::fuzz::Input input(data, size);
    k9erepl::reliability::HostileCase hostile;
    hostile.settings = k9erepl::fuzz::SettingsOf(input.Byte());
    hostile.files.storage = input.Rest();
    k9erepl::fuzz::Examine(hostile);
    return 0;
}
