// The runner's part between the closing of a storage and its next opening: what becomes of its
// files, and looks at them.
#include <k9erepl/storage.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "model/runner.h"

namespace k9erepl::model {

namespace fs = std::filesystem;

void Runner::Reopen(const ReopenPlan& plan) {
    Close();
    if (m_verdict.Failed()) {
        return;
    }
    Create(plan);
    TreatIndex(plan);
    const Settings settings = FittingSettings(plan);
    m_verdict.ExpectEqual(m_client.Open(settings.ConnString(m_path)), RC_OK, "Open: result");
    m_model.Open(settings);
    if (plan.load && !m_verdict.Failed()) {
        Load();
    }
}

void Runner::Close() {
    if (!m_client.HasHandle()) {
        return;
    }
    m_model.BeginClose();
    m_client.Close();
    ExpectFlush();
    m_model.EndClose();
}

void Runner::Create(const ReopenPlan& plan) {
    const std::string conn = "file=" + m_path;
    const auto create = [&](u32 flags, u32 expected) {
        m_verdict.ExpectEqual(K9eReplStorageCreate(conn.c_str(), flags), expected,
                              "Create: result");
    };
    switch (plan.create) {
        case CreateFirst::kNo:
            return;
        case CreateFirst::kRefused:
            create(0, RC_SYSTEM_ERROR);
            return;
        case CreateFirst::kLeave:
            create(0x2, RC_OK);
            return;
        case CreateFirst::kReplace:
            create(0x1, RC_OK);
            break;
        case CreateFirst::kDelete:
            m_verdict.ExpectEqual(K9eReplStorageDelete(conn.c_str()), RC_OK, "Delete: result");
            create(0, RC_OK);
            break;
    }
    ++m_generation;
    m_model.CreateAnew();
    m_verdict.Expect(!fs::exists(m_indexPath), "Create: leaves an index");
}

void Runner::TreatIndex(const ReopenPlan& plan) {
    std::error_code ignored;
    if (plan.saveIndex) {
        fs::copy_file(m_indexPath, m_savedIndexPath, fs::copy_options::overwrite_existing, ignored);
        m_savedGeneration = m_generation;
    }
    switch (plan.index) {
        case IndexFate::kKeep:
            break;
        case IndexFate::kDelete:
            fs::remove(m_indexPath, ignored);
            break;
        case IndexFate::kDamage:
            DamageIndex(plan.damagePermille);
            break;
        case IndexFate::kForge:
            ForgeIndex(plan.damagePermille, plan.forgery);
            break;
        case IndexFate::kRestoreOlder:
            if (m_savedGeneration == m_generation) {
                fs::copy_file(m_savedIndexPath, m_indexPath, fs::copy_options::overwrite_existing,
                              ignored);
            }
            break;
    }
}

void Runner::DamageIndex(u32 permille) {
    std::fstream file(m_indexPath, std::ios::in | std::ios::out | std::ios::binary);
    if (!file) {
        return;
    }
    const auto size = static_cast<std::streamoff>(fs::file_size(m_indexPath));
    const std::streamoff at = size * permille / 1000;
    file.seekg(at);
    const int byte = file.get();
    file.clear();
    file.seekp(at);
    file.put(static_cast<char>(byte ^ 0x15));
}

// One entry gets another offset, and the checksum agrees: only the storage file can tell.
void Runner::ForgeIndex(u32 permille, i64 added) {
    constexpr std::streamoff kChecksumAt = 24;
    constexpr std::streamoff kHeaderSize = 32;
    constexpr std::streamoff kEntrySize = 16;
    const auto fold = [](i64 value) {
        return static_cast<u32>(value) ^ static_cast<u32>(static_cast<u64>(value) >> 32U);
    };
    std::fstream file(m_indexPath, std::ios::in | std::ios::out | std::ios::binary);
    if (!file) {
        return;
    }
    const auto entries =
        (static_cast<std::streamoff>(fs::file_size(m_indexPath)) - kHeaderSize) / kEntrySize;
    const std::streamoff at = kHeaderSize + entries * permille / 1000 * kEntrySize;
    u32 checksum = 0;
    i64 entry[2] = {};  // revision, offset
    file.seekg(kChecksumAt);
    file.read(reinterpret_cast<char*>(&checksum), sizeof checksum);
    file.seekg(at);
    if (!file.read(reinterpret_cast<char*>(entry), sizeof entry)) {
        return;
    }
    checksum ^= fold(entry[0] - entry[1]);
    entry[1] += added;
    checksum ^= fold(entry[0] - entry[1]);
    file.seekp(at);
    file.write(reinterpret_cast<const char*>(entry), sizeof entry);
    file.seekp(kChecksumAt);
    file.write(reinterpret_cast<const char*>(&checksum), sizeof checksum);
}

// Every record of the file must fit a block, unless the storage is to find out.
Settings Runner::FittingSettings(const ReopenPlan& plan) const {
    Settings settings = plan.settings;
    const Content file = m_model.File();
    const bool served = std::any_of(file.records.begin(), file.records.end(), [&](const auto& r) {
        return r.second.Need() > settings.blockSize;
    });
    const bool readsAll = settings.kind != SessionKind::kEmptyMemory && settings.cacheBlocks == 0;
    if (plan.tooSmall && readsAll && served) {
        return settings;
    }
    settings.blockSize = std::max(settings.blockSize, static_cast<u32>(file.largestNeed));
    return settings;
}

void Runner::Load() {
    const bool wasOpen = m_model.IsOpen();
    const u32 expected = m_model.Load();
    const u32 rc = K9eReplStorageLoad(m_client.Handle());
    ExpectCode(OpKind::kLoad, rc, expected);
    if (wasOpen || expected != RC_OK || m_verdict.Failed()) {
        return;
    }
    const i64 nextRev = m_client.NextRev();
    m_verdict.Expect(m_model.AdoptNextRev(nextRev), "Load: next revision",
                     "got " + std::to_string(nextRev));
    EnumerateAll();
}

FileLook Runner::LookOf(u32 word) const {
    return {.path = m_path,
            .indexPath = word % 2 == 0 ? m_indexPath : "",
            .workPath = m_workPath,
            .cacheBlocks = word / 2 % 3,
            .what = "Look at the file: "};
}

void Runner::LookAtFile(u32 word) {
    if (m_model.WritesFile() && m_model.CurrentSettings().async) {
        if (word / 6 % 3 == 0) {
            WaitForWriter();
        }
        LookWhileWriting(LookOf(word));
    } else {
        ExpectContent(LookOf(word), m_model.File(), m_verdict);
    }
}

// The file ends with a commit block that OnWriteToFile has told of or with a later one; with that
// very one while the writer is held in the call.
void Runner::LookWhileWriting(FileLook look) {
    look.growing = true;
    const WriterWatch::Report told = m_client.Writer().Get();
    const i64 low = told.rev.value_or(kLowestRev);
    const Bounds written{low, told.stands ? low : kHighestRev};
    const ContentsWith contents = [&](i64 nextRev) {
        m_verdict.ExpectIn(nextRev - 1, written, "Look at the file: written revision");
        return m_model.FileStates(nextRev);
    };
    ExpectOneContent(look, m_model.File().largestNeed, contents, m_verdict);
}

// Not without a look at how far it had come.
void Runner::LetWriterGo(u32 word) {
    if (m_client.Writer().Get().stands) {
        LookWhileWriting(LookOf(word));
    }
    m_client.Writer().Release();
}

// A change of the header waits for it.
void Runner::WaitForWriter() {
    LetWriterGo(0);
    const u32 lifenum = m_model.Lifenum();
    m_model.SetLifenum(lifenum);
    ExpectCode(OpKind::kSetLifenum, K9eReplStorageSetLifenum(m_client.Handle(), lifenum), RC_OK);
}

}  // namespace k9erepl::model
