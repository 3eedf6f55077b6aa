// Whose turn it is with the image and the index file: the requester's or the index thread's. The
// index worker owns one.
#ifndef K9EREPL_INDEX_INDEX_TURN_H
#define K9EREPL_INDEX_INDEX_TURN_H

#include <atomic>

#include "platform/int_types.h"
#include "platform/thread.h"

namespace k9erepl {

enum class IndexCommand : u32 { kNone = 0, kSave = 1, kStop = 2 };

// Whoever holds the busy flag owns the image, the file and the timing; the flag is never held
// across a wait for the event. A command travels from the requester to the thread: it is given
// while the busy flag is held (kStop: at any time) and taken back by the thread, which holds the
// flag while it carries the command out. The requester begins nothing while a command is pending;
// the thread itself, when it is the requester, carries out a pending save first.
//
// Requesters are serialised by the storage's lock; anybody may ask IsBusy.
class IndexTurn {
  public:
    // The thread's way to the flag, also when it is the requester.
    void Take() {
        platform::PollingWait wait;
        while (!TryTake()) {
            wait.Next();
        }
    }
    // The requester's way: waits also until the thread has carried out the pending command.
    void TakeWhenIdle() {
        platform::PollingWait wait;
        do {
            while (IsBusy()) {
                wait.Next();
            }
        } while (!TryTake());
    }
    void Release() { m_busy.store(false, std::memory_order_release); }

    bool IsBusy() const {
        return m_busy.load(std::memory_order_acquire) || Command() != IndexCommand::kNone;
    }

    IndexCommand Command() const { return m_command.load(std::memory_order_acquire); }
    void Give(IndexCommand command) { m_command.store(command, std::memory_order_release); }
    // Gives a save unless a stop was given meanwhile, which must not be lost.
    void GiveSave() {
        IndexCommand none = IndexCommand::kNone;
        m_command.compare_exchange_strong(none, IndexCommand::kSave, std::memory_order_acq_rel);
    }
    // Takes a save back; a stop that was given meanwhile stays.
    void EndSave() {
        IndexCommand save = IndexCommand::kSave;
        m_command.compare_exchange_strong(save, IndexCommand::kNone, std::memory_order_acq_rel);
    }

    // REQUIRES: no thread runs, or the caller is the thread and holds the flag.
    void Reset() {
        Give(IndexCommand::kNone);
        Release();
    }

  private:
    bool TryTake() { return !m_busy.exchange(true, std::memory_order_acquire); }

    std::atomic<bool> m_busy{false};
    std::atomic<IndexCommand> m_command{IndexCommand::kNone};
};

// Gives the turn back at the end of a scope.
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
