// The process that is killed, and whose calls fail: runs a script on real files through the shared
// library, and tells in the shared memory of fault_environment.h how far it came.
//
//     script_client PATH SEED OPERATIONS ASYNC FORCE-FLUSH STARTS-OVER
//
// Exit status: 0 the script ended or an operation answered a failure, 2 wrong arguments.
#include <fcntl.h>
#include <k9erepl/storage.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "model/seed_run.h"
#include "reliability/preload/fault_environment.h"
#include "reliability/script_run.h"

namespace {

using namespace k9erepl::reliability;
using k9erepl::model::u32;

FaultShared* MapShared() {
    const char* const path = std::getenv("K9EREPL_FAULT_SHARED");  // NOLINT(concurrency-mt-unsafe)
    const int file = path == nullptr ? -1 : open(path, O_RDWR | O_CLOEXEC);
    void* const shared =
        mmap(nullptr, sizeof(FaultShared), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    return shared == MAP_FAILED ? nullptr : static_cast<FaultShared*>(shared);
}

bool IsYes(const char* text) {
    return *text == '1';
}

}  // namespace

int main(int argc, char** argv) {
    FaultShared* const shared = MapShared();
    if (argc != 7 || shared == nullptr) {
        (void)std::fprintf(stderr, "script_client: see its source\n");
        return 2;
    }
    k9erepl::model::KeepQuiet();
    const ScriptPlan plan{.operations = static_cast<u32>(std::strtoul(argv[3], nullptr, 10)),
                          .async = IsYes(argv[4]),
                          .forceFlush = IsYes(argv[5]),
                          .startsOver = IsYes(argv[6])};
    const ScriptHooks hooks{[&](u32 operation) { shared->begun = operation; },
                            [&](u32 operation) { shared->acknowledged = operation; }};
    const ScriptResult result =
        RunScript(argv[1], plan, std::strtoull(argv[2], nullptr, 10), hooks);
    shared->failed = result.failed;
    shared->code = result.code;
    shared->ended = 1;
    return 0;
}
