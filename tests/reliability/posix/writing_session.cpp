// Opening, comparing, appending, clearing; see the header.
#include "reliability/posix/writing_session.h"

#include <k9erepl/storage.h>
#include <sched.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

namespace k9erepl::reliability {

namespace {

constexpr u32 kDataSizeMost = 90;

u64 MixOf(u64 seed, i64 rev) {
    return model::Random(seed ^ (static_cast<u64>(rev) << 20U)).Next();
}

// The same from every writer.
std::string DataOf(u64 seed, i64 rev) {
    model::Random random(MixOf(seed, rev));
    std::string data(random.Below(kDataSizeMost), '\0');
    for (char& byte : data) {
        byte = static_cast<char>(random.Below(256));
    }
    return data;
}

Problem Answers(const char* what, u32 rc) {
    return rc == RC_OK ? "" : std::string(what) + " answers " + std::to_string(rc);
}

class Session {
  public:
    Session(const WritersPlan& plan, WritersBoard& board, u32 writer)
        : m_plan(plan), m_board(board), m_writer(writer) {}
    ~Session() { Close(); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    Problem Open();
    Problem Compare();
    Problem Append();
    Problem Clear(model::Random& random);
    void Close();

  private:
    struct Reading {
        const Session* session = nullptr;
        i64 first = 0;
        i64 last = 0;
        bool differs = false;
    };
    static u32 K9EREPL_CALL OnRecord(const K9eReplRec* record, void* context);
    static void K9EREPL_CALL OnWritten(i64 lastRev, void* board) {
        auto& written = static_cast<WritersBoard*>(board)->written;
        written = std::max(written.load(), lastRev);
    }

    const WritersPlan& m_plan;
    WritersBoard& m_board;
    const u32 m_writer;
    void* m_handle = nullptr;
};

Problem Session::Open() {
    u32 rc = RC_SYSTEM_ERROR;
    while ((rc = K9eReplStorageOpen(m_plan.connString.c_str(), &m_handle)) == RC_SYSTEM_ERROR) {
        ++m_board.refused;
        if (m_board.hasProblem) {
            return "";  // told by the one who met it
        }
        sched_yield();
    }
    if (rc != RC_OK) {
        return Answers("Open", rc);
    }
    const u32 before = m_board.owner.exchange(m_writer);
    if (before != 0 && (m_board.killed >> before & 1U) == 0) {
        return "writer " + std::to_string(m_writer) + " opened beside writer " +
               std::to_string(before);
    }
    K9eReplStorageSetOnWriteToFileCallback(m_handle, &OnWritten, &m_board);
    return Answers("Load", K9eReplStorageLoad(m_handle));
}

u32 Session::OnRecord(const K9eReplRec* record, void* context) {
    auto& reading = *static_cast<Reading*>(context);
    const i64 rev = record->rev;
    reading.differs |= reading.last != 0 && rev != reading.last + 1;
    reading.first = reading.first == 0 ? rev : reading.first;
    reading.last = rev;
    const std::string data = DataOf(reading.session->m_plan.seed, rev);
    reading.differs |=
        record->dataSize != data.size() || std::memcmp(record->data, data.data(), data.size()) != 0;
    return RC_OK;
}

// Everything that was told to be written is there, and nothing that no writer has begun; whole
// transactions only.
Problem Session::Compare() {
    Reading reading{.session = this};
    u32 rc = K9eReplStorageEnumRecords(m_handle, model::kLowestRev, model::kHighestRev, &OnRecord,
                                       &reading);
    i64 next = 0;
    rc = rc == RC_OK ? K9eReplStorageGetNextRev(m_handle, &next) : rc;
    if (rc != RC_OK) {
        return Answers("EnumRecords", rc);
    }
    const i64 last = next - 1;
    const i64 lowest = std::max<i64>(m_board.cleared, 1);
    const i64 highest = std::max<i64>(m_board.clearBegun, 1);
    const bool holds = !reading.differs && last >= m_board.written && last <= m_board.begun &&
                       last % kRecordsOfATransaction == 0 && reading.last == last &&
                       (last == 0 || (reading.first >= lowest && reading.first <= highest));
    if (!holds) {
        return std::string(reading.differs ? "other records: " : "holds ") +
               std::to_string(reading.first) + " to " + std::to_string(reading.last) +
               ", last revision " + std::to_string(last) + "; written " +
               std::to_string(m_board.written) + ", begun " + std::to_string(m_board.begun) +
               ", cleared " + std::to_string(m_board.cleared) + " of " +
               std::to_string(m_board.clearBegun);
    }
    m_board.begun = last;
    m_board.written = last;
    return "";
}

Problem Session::Append() {
    i64 rev = 0;
    u32 rc = K9eReplStorageGetNextRev(m_handle, &rev);
    rc = rc == RC_OK ? K9eReplStorageBeginTransaction(m_handle) : rc;
    for (i64 end = rev + kRecordsOfATransaction; rev < end && rc == RC_OK; ++rev) {
        const std::string data = DataOf(m_plan.seed, rev);
        std::vector<u64> buffer((sizeof(K9eReplRec) + data.size()) / sizeof(u64) + 1);
        auto* record = reinterpret_cast<K9eReplRec*>(buffer.data());
        record->userWord = 0;
        record->dataSize = static_cast<u32>(data.size());
        std::memcpy(record->data, data.data(), data.size());
        rc = K9eReplStorageInsert(m_handle, record);
    }
    if (rc == RC_OK) {
        m_board.begun = rev - 1;
        rc = K9eReplStorageCommit(m_handle);
    }
    if (rc == RC_OK && !m_plan.async) {
        m_board.written = rev - 1;
    }
    return Answers("appending", rc);
}

Problem Session::Clear(model::Random& random) {
    i64 next = 0;
    K9eReplStorageGetNextRev(m_handle, &next);
    const i64 from = std::max<i64>(m_board.clearBegun, 1);
    if (next - 1 <= from) {
        return "";  // one record stays
    }
    const i64 rev = from + 1 + static_cast<i64>(random.Next() % static_cast<u64>(next - 1 - from));
    const u32 mode = m_plan.squeezes
                         ? random.OneOf<u32>({K9EREPL_CLEAR_LOGICAL, K9EREPL_CLEAR_SQUEEZE,
                                              K9EREPL_CLEAR_SQUEEZE_BACKUP})
                         : u32{K9EREPL_CLEAR_LOGICAL};
    // What a writer that was killed in the middle of a squeeze has left.
    std::remove((m_plan.path + ".temporary").c_str());
    m_board.clearBegun = rev;
    const u32 rc = K9eReplStorageClearOldRev(m_handle, rev, mode);
    if (rc == RC_OK) {
        m_board.cleared = rev;
        m_board.squeezes += mode == K9EREPL_CLEAR_LOGICAL ? 0 : 1;
    }
    return Answers("Clear", rc);
}

void Session::Close() {
    if (m_handle != nullptr) {
        u32 self = m_writer;
        m_board.owner.compare_exchange_strong(self, 0);
        K9eReplStorageClose(m_handle);
        m_handle = nullptr;
    }
}

}  // namespace

void WritersBoard::Tell(const Problem& text) {
    if (!text.empty() && !hasProblem.exchange(true)) {
        const std::size_t size = std::min(text.size(), sizeof problem - 1);
        std::memcpy(problem, text.data(), size);
    }
}

Problem CreateForWriters(const WritersPlan& plan) {
    return Answers("Create", K9eReplStorageCreate(plan.connString.c_str(), 0));
}

Problem WriteForAWhile(const WritersPlan& plan, WritersBoard& board, u32 writer, u32 steps,
                       model::Random& random) {
    Session session(plan, board, writer);
    Problem problem = session.Open();
    if (!problem.empty() || board.hasProblem) {
        return problem;
    }
    problem = session.Compare();
    for (u32 step = 0; step < steps && problem.empty(); ++step) {
        problem = random.OneIn(4) ? session.Clear(random) : session.Append();
        ++board.operations;
    }
    return problem;
}

}  // namespace k9erepl::reliability
