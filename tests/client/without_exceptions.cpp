// A client that is compiled without exceptions: the C++ interface works through the results alone.
// Ends with 0 when everything answered as expected.
#include <k9erepl/storage.hpp>

int main() {
    const auto settings = k9erepl::Settings().File(":memory:").NeverFlush();
    auto opened = k9erepl::Storage::OpenOrCreate(settings);
    if (!opened) {
        return 1;
    }
    auto transaction = opened->Begin();
    if (!transaction || !transaction->Insert("one") || !transaction->Commit()) {
        return 2;
    }
    int records = 0;
    const auto visited =
        opened->Enumerate(1, k9erepl::kLastRev, [&](const k9erepl::Record&) { ++records; });
    return visited && records == 1 && !k9erepl::Storage::Open(k9erepl::Settings()) ? 0 : 3;
}
