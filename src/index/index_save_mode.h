// Who writes the index file at a save. Used by the index object, its worker and its callers.
#ifndef K9EREPL_INDEX_INDEX_SAVE_MODE_H
#define K9EREPL_INDEX_INDEX_SAVE_MODE_H

namespace k9erepl {

enum class IndexSaveMode {
    kSync,   // the caller, before the request returns
    kAsync,  // the index thread
};

}  // namespace k9erepl

#endif  // K9EREPL_INDEX_INDEX_SAVE_MODE_H
