// The search's visitor; see the header.
#include "engine/clear_search.h"

namespace k9erepl {

ResultCode ClearSearch::Visit(i64 offset, const K9eReplRec* rec, void* ctx) {
    auto& search = *static_cast<ClearSearch*>(ctx);
    if (rec == nullptr) {
        if (!search.FoundKept()) {
            return RC_OK;
        }
        search.commitOffset = offset;
        return RC_ENUM_STOP;
    }
    if (rec->rev < search.minRev) {
        search.recSz += rec->dataSize + kRecordHeadSize;
    } else if (!search.FoundKept()) {
        search.newFirstRev = rec->rev;
        search.newFirstRecOffset = offset;
        return search.stopAtKept ? u32{RC_ENUM_STOP} : ResultCode{RC_OK};
    }
    return RC_OK;
}

}  // namespace k9erepl
