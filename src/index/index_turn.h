// Decides whose turn it is with the image and the index file: the requester's or the index
// thread's. The index worker owns one.
#ifndef K9EREPL_INDEX_INDEX_TURN_H
#define K9EREPL_INDEX_INDEX_TURN_H

#include <atomic>

#include "platform/int_types.h"
#include "platform/thread.h"

namespace k9erepl {

// What the requester asks of the thread. A pending kStop is never replaced by kSave.
enum class IndexCommand : u32 { kNone = 0, kSave = 1, kStop = 2 };

// Two atomic words: the busy flag and the command. Whoever holds the busy flag owns the image, the
// file and the timing; the flag is never held while waiting for the wake-up event. A command
// travels from the requester to the thread: the requester gives it while it holds the busy flag
// (kStop: at any time), and the thread takes it back, holding the flag while it carries the command
// out. The requester begins nothing while a command is pending. When the thread itself is the
// requester, in its idle call, it first carries out a save that is pending: nobody else would.
//
// The storage's lock serialises the requesters. The thread never waits for that lock, so a
// requester that holds it may wait for the thread. Anybody may ask IsBusy at any time.
class IndexTurn {
  public:
    // Sets the busy flag; waits, polling, while the other side holds it. For the thread, also when
    // it is the requester.
    void Take() {
        platform::PollingWait wait;
        while (!TryTake()) {
            wait.Next();
        }
    }
    // The same for any other requester: it also waits until the thread has carried out the pending
    // command.
    void TakeWhenIdle() {
        platform::PollingWait wait;
        do {
            while (IsBusy()) {
                wait.Next();
            }
        } while (!TryTake());
    }
    // Clears the busy flag. REQUIRES: the caller has set it.
    void Release() { m_busy.store(false, std::memory_order_release); }

    // Tells whether somebody has the turn or a command is pending. Without the turn the answer may
    // be out of date at once.
    bool IsBusy() const {
        return m_busy.load(std::memory_order_acquire) || Command() != IndexCommand::kNone;
    }

    IndexCommand Command() const { return m_command.load(std::memory_order_acquire); }
    // Replaces whatever command is there.
    void Give(IndexCommand command) { m_command.store(command, std::memory_order_release); }
    // Gives a save, unless a stop was given meanwhile: that must not be lost.
    void GiveSave() {
        IndexCommand none = IndexCommand::kNone;
        m_command.compare_exchange_strong(none, IndexCommand::kSave, std::memory_order_acq_rel);
    }
    // Takes a save back; a stop that was given meanwhile stays. Called by the thread before it
    // clears the busy flag.
    void EndSave() {
        IndexCommand save = IndexCommand::kSave;
        m_command.compare_exchange_strong(save, IndexCommand::kNone, std::memory_order_acq_rel);
    }

    // Clears both words. REQUIRES: no thread runs, or the caller is the thread and holds the flag.
    void Reset() {
        Give(IndexCommand::kNone);
        Release();
    }

  private:
    // Returns true when the flag was free and is now the caller's.
    [[nodiscard]] bool TryTake() { return !m_busy.exchange(true, std::memory_order_acquire); }

    std::atomic<bool> m_busy{false};
    std::atomic<IndexCommand> m_command{IndexCommand::kNone};
};

// Gives the turn back at the end of a scope, on every way out of it, also when the thread is ended
// from outside by an exception.
class IndexTurnHolder {
  public:
    // REQUIRES: the caller has taken `turn`.
    explicit IndexTurnHolder(IndexTurn& turn) : m_turn(turn) {}
    ~IndexTurnHolder() { m_turn.Release(); }
    IndexTurnHolder(const IndexTurnHolder&) = delete;
    IndexTurnHolder& operator=(const IndexTurnHolder&) = delete;

  private:
    IndexTurn& m_turn;
};

}  // namespace k9erepl

#endif  // K9EREPL_INDEX_INDEX_TURN_H
