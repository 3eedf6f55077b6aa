// Opening, comparing, appending, clearing; see the header.
#include "reliability/posix/writing_session.h"

#include <k9erepl/storage.h>
#include <sched.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "support/file_bytes.h"

namespace k9erepl::reliability {

namespace {

constexpr u32 kDataSizeMost = 90;
constexpr i64 kRecordsOfATransaction = 3;

Problem Answers(const char* what, u32 rc) {
    return rc == RC_OK ? "" : std::string(what) + " answers " + std::to_string(rc);
}

class Session {
  public:
    Session(const Scene& scene, u32 writer)
        : m_scene(scene), m_board(*scene.board), m_writer(writer) {}
    ~Session() {
        u32 self = m_writer;
        m_board.owner.compare_exchange_strong(self, 0);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    Problem Open() {
        u32 rc = RC_SYSTEM_ERROR;
        while ((rc = m_client.Open(m_scene.connString)) == RC_SYSTEM_ERROR) {
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
        K9eReplStorageSetOnWriteToFileCallback(m_client.Handle(), &OnWritten, &m_board);
        return Answers("Load", K9eReplStorageLoad(m_client.Handle()));
    }

    // Everything that was told to be written is there, and nothing that no writer has begun; whole
    // transactions only.
    Problem Compare() {
        model::Records records;
        const u32 rc = ReadRange(m_client, model::kLowestRev, model::kHighestRev, &records);
        if (rc != RC_OK) {
            return Answers("EnumRecords", rc);
        }
        const i64 last = m_client.NextRev() - 1;
        const i64 first = records.empty() ? 0 : records.begin()->first;
        const bool holds = IsWhole(records) && last >= m_board.written && last <= m_board.begun &&
                           last % kRecordsOfATransaction == 0 &&
                           last == (records.empty() ? 0 : records.rbegin()->first) &&
                           (last == 0 || (first >= std::max<i64>(m_board.cleared, 1) &&
                                          first <= std::max<i64>(m_board.clearBegun, 1)));
        if (!holds) {
            return std::string(IsWhole(records) ? "holds " : "other records: ") +
                   std::to_string(records.size()) + " from " + std::to_string(first) +
                   ", last revision " + std::to_string(last) + "; written " +
                   std::to_string(m_board.written) + ", begun " + std::to_string(m_board.begun) +
                   ", cleared " + std::to_string(m_board.cleared) + " of " +
                   std::to_string(m_board.clearBegun);
        }
        m_board.begun = last;
        m_board.written = last;
        return "";
    }

    Problem Append() {
        i64 rev = m_client.NextRev();
        u32 rc = K9eReplStorageBeginTransaction(m_client.Handle());
        for (i64 end = rev + kRecordsOfATransaction; rev < end && rc == RC_OK; ++rev) {
            i64 got = 0;
            rc = m_client.Insert(RecordOf(rev), nullptr, &got);
        }
        if (rc == RC_OK) {
            m_board.begun = rev - 1;
            rc = K9eReplStorageCommit(m_client.Handle());
        }
        if (rc == RC_OK && !m_scene.async) {
            m_board.written = rev - 1;
        }
        return Answers("appending", rc);
    }

    Problem Clear(model::Random& random) {
        const i64 next = m_client.NextRev();
        const i64 from = std::max<i64>(m_board.clearBegun, 1);
        if (next - 1 <= from) {
            return "";  // one record stays
        }
        const i64 rev =
            from + 1 + static_cast<i64>(random.Next() % static_cast<u64>(next - 1 - from));
        const u32 mode = random.OneOf<u32>(
            {K9EREPL_CLEAR_LOGICAL, K9EREPL_CLEAR_SQUEEZE, K9EREPL_CLEAR_SQUEEZE_BACKUP});
        // What a writer that was killed in the middle of a squeeze has left.
        std::remove((m_scene.path + ".temporary").c_str());
        m_board.clearBegun = rev;
        const u32 rc = K9eReplStorageClearOldRev(m_client.Handle(), rev, mode);
        if (rc == RC_OK) {
            m_board.cleared = rev;
            m_board.squeezes += mode == K9EREPL_CLEAR_LOGICAL ? 0 : 1;
        }
        return Answers("Clear", rc);
    }

  private:
    static void K9EREPL_CALL OnWritten(i64 lastRev, void* board) {
        auto& written = static_cast<WritersBoard*>(board)->written;
        written = std::max(written.load(), lastRev);
    }
    // The same from every writer.
    model::PlannedRecord RecordOf(i64 rev) const {
        const u64 mixed = Mix(m_scene.dataSeed, static_cast<u64>(rev));
        return model::MakeRecord(
            {model::SizeClass::kBytes, static_cast<u32>(mixed % kDataSizeMost)},
            kDataSizeMost + model::kRecordOverhead, static_cast<u32>(mixed));
    }
    bool IsWhole(const model::Records& records) const {
        i64 expected = records.empty() ? 0 : records.begin()->first;
        return std::all_of(records.begin(), records.end(), [&](const auto& entry) {
            return entry.first == expected++ && entry.second == RecordOf(entry.first).record;
        });
    }

    const Scene& m_scene;
    WritersBoard& m_board;
    const u32 m_writer;
    model::StorageClient m_client;
};

}  // namespace

void WritersBoard::Tell(const Problem& text) {
    if (!text.empty() && !hasProblem.exchange(true)) {
        const std::size_t size = std::min(text.size(), sizeof problem - 1);
        std::memcpy(problem, text.data(), size);
    }
}

Scene::Scene(u64 seed)
    : random(seed),
      path(folder.File("shared.edb")),
      dataSeed(seed),
      async(random.OneIn(3)),
      connString("file=" + path + ";block_size=" + random.OneOf<const char*>({"300", "2000"}) +
                 ";cache_type=" + random.OneOf<const char*>({"Last1", "AllInMem"}) +
                 ";flush_mode=PerTrans;flush_trans_num=1;flush_timeout=1000000" + ";force_flush=" +
                 (random.OneIn(4) ? "yes" : "no") + ";async_mode=" + (async ? "yes" : "no")) {
    board->Tell(Answers("Create", K9eReplStorageCreate(connString.c_str(), 0)));
}

Problem Scene::Write(u32 writer, u32 steps, model::Random& dice) {
    Session session(*this, writer);
    Problem problem = session.Open();
    if (!problem.empty() || board->hasProblem) {
        return problem;
    }
    problem = session.Compare();
    for (u32 step = 0; step < steps && problem.empty(); ++step) {
        problem = dice.OneIn(4) ? session.Clear(dice) : session.Append();
        ++board->operations;
    }
    return problem;
}

Scene::Files Scene::Everything() const {
    Files files;
    for (const auto& entry : std::filesystem::directory_iterator(folder.Path())) {
        files[entry.path().filename()] = test::ReadBytes(entry.path());
    }
    return files;
}

Problem Scene::OnlyRefusals() const {
    for (const std::string& text : log.Texts(K9SYS_LOG_ERROR)) {
        if (text != InUse() && !text.starts_with("Failed to init ")) {
            return "logs '" + text + "'";
        }
    }
    return "";
}

}  // namespace k9erepl::reliability
