// The child of the crash tests: appends the planned transactions to a storage for ever and writes
// each revision that the callback CALLBACK acknowledges to standard output. It is killed.
//
//   crash_writer CONNECTION-STRING SEED OnFlush|OnWriteToFile
//
// Exit status 1: a call of the library failed, which standard error tells.
#include <k9erepl/storage.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "crash/crash_plan.h"

namespace {

using namespace k9erepl::test;

void Check(u32 code, const char* what) {
    if (code != RC_OK) {
        (void)std::fprintf(stderr, "crash_writer: %s answers %u\n", what, code);
        std::_Exit(1);
    }
}

void K9EREPL_CALL Acknowledge(i64 lastRev, void* /*context*/) {
    if (std::printf(kAcknowledgementFormat, static_cast<long long>(lastRev)) < 0 ||
        std::fflush(stdout) != 0) {
        std::_Exit(0);  // the test has gone
    }
}

void Insert(void* storage, const PlannedRecord& planned) {
    std::vector<char> bytes(sizeof(K9eReplRec) + planned.data.size());
    auto* record = reinterpret_cast<K9eReplRec*>(bytes.data());
    record->userWord = planned.userWord;
    record->dataSize = static_cast<u32>(planned.data.size());
    std::memcpy(record->data, planned.data.data(), planned.data.size());
    Check(K9eReplStorageInsert(storage, record), "Insert");
}

void AppendTransaction(void* storage, u64 seed) {
    i64 firstRev = 0;
    Check(K9eReplStorageGetNextRev(storage, &firstRev), "GetNextRev");
    Check(K9eReplStorageBeginTransaction(storage), "BeginTransaction");
    for (i64 rev = firstRev; rev < firstRev + PlanRecordCount(seed, firstRev); ++rev) {
        Insert(storage, PlanRecord(seed, rev));
    }
    Check(K9eReplStorageCommit(storage), "Commit");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        (void)std::fprintf(stderr, "usage: crash_writer CONNECTION-STRING SEED CALLBACK\n");
        return 2;
    }
    const u64 seed = std::strtoull(argv[2], nullptr, 10);
    void* storage = nullptr;
    Check(K9eReplStorageCreate(argv[1], K9EREPL_CREATE_KEEP_EXISTING), "Create");
    Check(K9eReplStorageOpen(argv[1], &storage), "Open");
    const bool whenFlushed = std::strcmp(argv[3], "OnFlush") == 0;
    Check(whenFlushed ? K9eReplStorageSetOnFlushCallback(storage, &Acknowledge, nullptr)
                      : K9eReplStorageSetOnWriteToFileCallback(storage, &Acknowledge, nullptr),
          argv[3]);
    Check(K9eReplStorageLoad(storage), "Load");
    for (;;) {
        AppendTransaction(storage, seed);
    }
}
