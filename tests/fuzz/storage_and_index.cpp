// Fuzz target: a storage file and its index file. The first byte chooses the settings, the second
// whether the index gets the checksum that fits, the next two are the index's size; then come the
// index and the storage.
#include "fuzz/hostile_input.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    k9erepl::fuzz::Input input(data, size);
    k9erepl::reliability::HostileCase hostile;
    hostile.indexMayPassOver = true;
    hostile.settings = k9erepl::fuzz::SettingsOf(input.Byte());
    const bool mends = input.Byte() % 2 == 0;
    hostile.files.index = input.Take(static_cast<std::size_t>(input.Number(2)));
    hostile.files.storage = input.Rest();
    if (mends && hostile.files.index.size() >= 32) {
        k9erepl::reliability::MendChecksum(hostile.files.index);
    }
    k9erepl::fuzz::Examine(hostile);
    return 0;
}
