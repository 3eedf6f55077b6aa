// What a storage file may hold while an asynchronous writer is behind its client: the state after
// each commit block that was queued. The model keeps one.
#ifndef K9EREPL_TESTS_MODEL_QUEUED_STATES_H
#define K9EREPL_TESTS_MODEL_QUEUED_STATES_H

#include <cstddef>
#include <vector>

#include "model/content.h"

namespace k9erepl::model {

class QueuedStates {
  public:
    // The file goes on from a state in which a load would find `nextRev`.
    void Leave(Bounds nextRev) { m_left.push_back({nextRev, m_before.size()}); }
    // A clear is queued behind the states so far; `records` are those before it.
    void LeaveBefore(const Records& records) { m_before.push_back(records); }
    // Everything that was queued is in the file.
    void AllWritten();

    // What the file may hold when a load finds `nextRev`. `last` is what it holds in the end.
    std::vector<Content> With(i64 nextRev, const Content& last) const;

  private:
    struct State {
        Bounds nextRev;
        std::size_t clears;  // how many were queued before it
    };

    std::vector<State> m_left;      // the last one is not among them
    std::vector<Records> m_before;  // one for each clear that was queued
};

}  // namespace k9erepl::model

#endif  // K9EREPL_TESTS_MODEL_QUEUED_STATES_H
