// The states; see the header.
#include "model/queued_states.h"

namespace k9erepl::model {

namespace {

Content UpTo(i64 nextRev, const Records& records, const Content& last) {
    Content content;
    content.records.insert(records.begin(), records.lower_bound(nextRev));
    content.oldest = last.oldest;
    content.nextRev = {nextRev, nextRev};
    content.lifenum = last.lifenum;
    content.mark = last.mark;
    content.largestNeed = last.largestNeed;
    content.hasDead = last.hasDead;
    return content;
}

}  // namespace

void QueuedStates::AllWritten() {
    m_left.clear();
    m_before.clear();
}

// The writer says in every commit block what is cleared by then, so that a clear may take effect
// with a commit block that was queued before it. It never leaves a file without records so.
std::vector<Content> QueuedStates::With(i64 nextRev, const Content& last) const {
    std::vector<Content> found;
    if (last.nextRev.Hold(nextRev)) {
        found.push_back(last);
    }
    for (const State& state : m_left) {
        for (std::size_t clears = state.clears;
             state.nextRev.Hold(nextRev) && clears <= m_before.size(); ++clears) {
            const bool cleared = clears == m_before.size();
            Content content = UpTo(nextRev, cleared ? last.records : m_before[clears], last);
            if (clears == state.clears || !content.records.empty()) {
                found.push_back(std::move(content));
            }
        }
    }
    return found;
}

}  // namespace k9erepl::model
