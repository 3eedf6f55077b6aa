// Says who writes the index file at a save. Used by the index object, its worker and its callers.
// docs/index-file.md, "When it is written", lists which event makes which kind of save.
#ifndef K9EREPL_INDEX_INDEX_SAVE_MODE_H
#define K9EREPL_INDEX_INDEX_SAVE_MODE_H

namespace k9erepl {

enum class IndexSaveMode {
    // The caller writes before the request returns, and gets the code of a failed write.
    kSync,
    // The index thread writes later. A failed write ends the thread, which the next commit that
    // wants a save starts again.
    kAsync,
};

}  // namespace k9erepl

#endif  // K9EREPL_INDEX_INDEX_SAVE_MODE_H
