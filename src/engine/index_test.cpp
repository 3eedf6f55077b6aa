// The index test; see the header.
#include "engine/index_test.h"

#include "support/log.h"
#include "support/timing_set.h"

namespace k9erepl {

namespace {

ResultCode CheckEntry(CSolidStorage& file, const TIndexEntry& entry) {
    const ResultCode rc = file.CheckRecordAt(entry.rev, entry.offset);
    if (rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Index test failed at offset %I64d", i64{entry.offset});
    } else {
        LOG_INFO(kLogStorage, "Checked rec rev %I64d at offset %I64d", i64{entry.rev},
                 i64{entry.offset});
    }
    return rc;
}

ResultCode CheckSamples(CSolidStorage& file, std::span<const TIndexEntry> entries,
                        TimingSet& timing, u32 timeRec) {
    const double step = entries.size() > kIndexTestSamples
                            ? static_cast<double>(entries.size()) / kIndexTestSamples
                            : 1.0;
    double credit = 0.0;
    for (const TIndexEntry& entry : entries) {
        credit -= 1.0;
        if (credit > 0.0 && &entry != &entries.back()) {
            continue;
        }
        credit += step;
        timing.Start(timeRec);
        if (ResultCode rc = CheckEntry(file, entry); rc != RC_OK) {
            return rc;
        }
        timing.Stop(timeRec);
    }
    return RC_OK;
}

}  // namespace

ResultCode TestIndex(CSolidStorage& file, std::span<const TIndexEntry> entries) {
    TimingSet timing;
    const u32 timeTotal = timing.Register("IndexTest-Total");
    const u32 timeRec = timing.Register("IndexTest-Rec");
    LOG_INFO(kLogStorage, "Index test started; cnt %P", entries.size());
    timing.Start(timeTotal);
    const ResultCode rc = CheckSamples(file, entries, timing, timeRec);
    timing.Stop(timeTotal);
    timing.Report();
    return rc;
}

}  // namespace k9erepl
