// A folder with storages in it, and ways to their names. Used by the families of places.cpp.
#ifndef K9EREPL_TESTS_RELIABILITY_POSIX_PLACE_H
#define K9EREPL_TESTS_RELIABILITY_POSIX_PLACE_H

#include <k9erepl/storage.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <vector>

#include "model/storage_client.h"
#include "reliability/posix/kinds.h"
#include "support/file_bytes.h"
#include "support/temp_folder.h"

namespace k9erepl::reliability {

namespace fs = std::filesystem;
using Files = std::map<std::string, std::vector<u8>>;

inline constexpr uid_t kNobody = 65534;
inline constexpr u32 kRecords = 30;

// How a path leads to the file "target" of the folder.
enum class Way : u8 {
    kPlain,
    kDot,            // ./target
    kThroughFolder,  // folder/../target
    kRelative,       // from the current folder
    kHardLink,
    kSymbolicLink,
    kChain,         // a symbolic link to a symbolic link
    kLinkedFolder,  // a symbolic link to the folder, and the name in it
    kHardInFolder,  // a hard link in another folder
};
inline constexpr u32 kWays = 9;

inline bool NeedsTarget(Way way) {
    return way == Way::kHardLink || way == Way::kHardInFolder;
}

class Place {
  public:
    explicit Place(u64 seed) : m_random(seed) {
        fs::create_directory(File("sub"));
        m_settings = std::string(";block_size=") + m_random.OneOf<const char*>({"400", "3000"}) +
                     ";cache_type=Last1;flush_mode=PerTrans;flush_trans_num=1;" +
                     "flush_timeout=1000000;async_mode=" + (m_random.OneIn(2) ? "yes" : "no");
    }

    std::string File(const std::string& name) const { return m_folder.File(name); }
    model::Random& Dice() { return m_random; }

    std::string Conn(const std::string& storage, const std::string& index = "") const {
        return "file=" + storage + m_settings + (index.empty() ? "" : ";index_file=" + index);
    }

    // It leaves the file alone.
    std::string ReadingConn(const std::string& name) const {
        return "cache_type=AllInMem;flush_mode=NoFlush;file=" + File(name);
    }

    // A closed storage of some records, or so many, which it should hold from now on.
    void Make(const std::string& name, u32 records = 0) {
        ExpectCode("Create", K9eReplStorageCreate(Conn(File(name)).c_str(), 0), RC_OK);
        const Problem problem =
            Append(name, records > 0 ? records : 2 + m_random.Below(20), &m_held[name]);
        Require(problem.empty(), problem);
    }
    // Two of them, "a.edb", whose content it returns, and "b.edb".
    Seen MakeBoth() {
        Make("a.edb");
        Make("b.edb");
        return m_held["a.edb"];
    }
    Problem Append(const std::string& name, u32 records, Seen* after = nullptr) {
        Seen before;
        return Visit(Conn(File(name)),
                     {records, m_random.Below(60), static_cast<u32>(m_random.Next())}, &before,
                     after);
    }
    // Opens, loads, and clears what it should hold below `rev`.
    u32 Clear(const std::string& name, i64 rev, u32 mode) {
        model::StorageClient client;
        u32 rc = client.Open(Conn(File(name)));
        rc = rc == RC_OK ? K9eReplStorageLoad(client.Handle()) : rc;
        model::Records& held = m_held[name].records;
        held.erase(held.begin(), held.lower_bound(rev));
        return rc == RC_OK ? K9eReplStorageClearOldRev(client.Handle(), rev, mode) : rc;
    }
    u32 TryOpen(const std::string& name) const {
        return model::StorageClient().Open(Conn(File(name)));
    }

    // The storage holds this, whatever index file there is.
    void Holds(const std::string& name, const model::Records& expected) const {
        Seen seen;
        const Problem problem = Visit(ReadingConn(name), {}, &seen);
        Require(problem.empty(), name + ": " + problem);
        Require(seen.records == expected, name + " holds " + Describe(seen));
    }
    const model::Records& RecordsOf(const std::string& name) { return m_held[name].records; }
    // What was made.
    void HoldsAll() const {
        for (const auto& [name, held] : m_held) {
            Holds(name, held.records);
        }
    }
    void HoldsRange(const std::string& name, i64 first, i64 last) const {
        Seen seen;
        const Problem problem = Visit(Conn(File(name)), {}, &seen);
        Require(problem.empty() && !seen.records.empty() && seen.records.begin()->first == first &&
                    seen.records.rbegin()->first == last,
                problem + " holds " + Describe(seen));
    }

    // Gives folder and file to somebody whom these permissions bind.
    void LetIn(const std::string& name, mode_t ofFolder, mode_t ofFile) const {
        (void)chown(m_folder.Path().c_str(), kNobody, kNobody);
        (void)chown(File(name).c_str(), kNobody, kNobody);
        (void)chmod(File(name).c_str(), ofFile);
        (void)chmod(m_folder.Path().c_str(), ofFolder);
    }
    const std::string& Folder() const { return m_folder.Path(); }

    // Of a name that a squeeze gives.
    std::string AnySuffix() {
        return m_random.OneOf<const char*>({".temporary", ".backup", ".backup-idx"});
    }
    // Gives "a.edb" or "b.edb" the name `link`, too, by a link of either kind. Returns which.
    std::string LinkToOne(const std::string& link) {
        const std::string target = m_random.OneIn(2) ? "a.edb" : "b.edb";
        if (m_random.OneIn(2)) {
            fs::create_symlink(target, File(link));
        } else {
            fs::create_hard_link(File(target), File(link));
        }
        return target;
    }

    // A path that leads to `target`, a name in the folder. Makes the links that it needs.
    std::string PathBy(Way way, const std::string& target) {
        const std::string link = "link" + std::to_string(++m_links);
        switch (way) {
            case Way::kPlain:
                return File(target);
            case Way::kDot:
                return File("./" + target);
            case Way::kThroughFolder:
                return File("sub/../" + target);
            case Way::kRelative:
                return fs::relative(m_folder.Path()).string() + "/" + target;
            case Way::kHardLink:
                fs::create_hard_link(File(target), File(link));
                return File(link);
            case Way::kSymbolicLink:
                fs::create_symlink(target, File(link));
                return File(link);
            case Way::kChain:
                fs::create_symlink(target, File(link));
                fs::create_symlink(File(link), File("sub/" + link));
                return File("sub/" + link);
            case Way::kLinkedFolder:
                fs::create_directory_symlink("..", File("sub/" + link));
                return File("sub/" + link + "/" + target);
            case Way::kHardInFolder:
                fs::create_hard_link(File(target), File("sub/" + link));
                break;
        }
        return File("sub/" + link);
    }
    Way AnyWay() { return static_cast<Way>(m_random.Below(kWays)); }
    Way AnyWayTo(const std::string& target) {
        Way way = AnyWay();
        while (NeedsTarget(way) && !fs::exists(File(target))) {
            way = AnyWay();
        }
        return way;
    }

    // Everything in the folder: names, what links say, and bytes.
    Files Everything() const {
        Files files;
        for (const auto& entry : fs::recursive_directory_iterator(m_folder.Path())) {
            if (entry.is_symlink()) {
                const std::string target = fs::read_symlink(entry.path());
                files[entry.path()].assign(target.begin(), target.end());
            } else if (entry.is_regular_file()) {
                files[entry.path()] = test::ReadBytes(entry.path());
            }
        }
        return files;
    }

  private:
    const test::TempFolder m_folder;
    model::Random m_random;
    std::string m_settings;
    std::map<std::string, Seen> m_held;  // what each storage should hold
    u32 m_links = 0;
};

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_POSIX_PLACE_H
