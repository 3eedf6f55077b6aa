// Settings: builds the connection string that names and configures a storage. It knows every key of
// docs/configuration.md. Part of the C++ interface, see <k9erepl/storage.hpp>.
#ifndef K9EREPL_SETTINGS_HPP
#define K9EREPL_SETTINGS_HPP

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace k9erepl {

inline namespace cpp1 {

// Each function sets one key and returns the object, so that calls can be chained; the last call
// for a key counts. What is not set has the library's default. Ranges are checked by the library
// when the storage is opened; docs/configuration.md has them.
class Settings {
  public:
    // --- The storage file
    Settings& File(std::string_view path) { return Set("file", path); }
    Settings& IndexFile(std::string_view path) { return Set("index_file", path); }
    Settings& ReadOnly(bool on = true) { return Set("read_only", YesNo(on)); }
    // Reads the whole file at the load, and refuses one that is damaged in the middle.
    Settings& Check(bool on = true) { return Set("check", YesNo(on)); }
    Settings& FileInitialSize(std::uint32_t mib) { return Set("file_initial_size", mib); }
    Settings& FileSizeDelta(std::uint32_t mib) { return Set("file_size_delta", mib); }
    Settings& ForceFlush(bool on = true) { return Set("force_flush", YesNo(on)); }
    Settings& CommitBarrier(bool on = true) { return Set("commit_barrier", YesNo(on)); }
    Settings& FileLock(bool on = true) { return Set("file_lock", YesNo(on)); }
    Settings& WriteThrough(bool on = true) { return Set("write_through", YesNo(on)); }

    // --- Memory
    Settings& KeepLastBlocks(std::uint32_t blocks) {
        return Set("cache_type", "Last" + std::to_string(blocks));
    }
    Settings& KeepAllInMemory() { return Set("cache_type", "AllInMem"); }
    Settings& BlockSize(std::uint32_t bytes) { return Set("block_size", bytes); }
    Settings& MemoryReserve(std::uint32_t blocks) { return Set("memory_reserve", blocks); }
    Settings& ReadBuffersCount(std::uint32_t buffers) { return Set("read_buffers_count", buffers); }
    Settings& RangeIndexMemory(std::uint32_t bytes) { return Set("range_index_memory", bytes); }

    // --- Flushing
    Settings& FlushEveryTransactions(std::uint32_t transactions) {
        return Set("flush_mode", "PerTrans").Set("flush_trans_num", transactions);
    }
    Settings& FlushEveryBytes(std::uint32_t bytes) {
        return Set("flush_mode", "PerData").Set("flush_data_size", bytes);
    }
    // Keeps everything in memory and writes nothing; with ":memory:" as the file there is none.
    Settings& NeverFlush() { return Set("flush_mode", "NoFlush").KeepAllInMemory(); }
    Settings& FlushTimeout(std::uint32_t ms) { return Set("flush_timeout", ms); }

    // --- Index file and threads
    Settings& IndexHint(std::uint32_t blocks) { return Set("index_hint", blocks); }
    Settings& AuxAffinity(std::uint32_t mask) { return Set("aux_affinity", mask); }
    Settings& AsyncMode(bool on = true) { return Set("async_mode", YesNo(on)); }
    Settings& AsyncBufferSize(std::uint32_t kilobytes) {
        return Set("async_buffer_size", kilobytes);
    }

    // True if every value can be written in a connection string, which has no quoting: a value that
    // is empty, begins with a blank, or has ";" or "," in it, cannot. A storage is not opened with
    // such settings (RC_INVALID_ARG).
    bool IsValid() const noexcept {
        for (const auto& [key, value] : m_items) {
            if (value.empty() || value.front() == ' ' || value.front() == '\t' ||
                value.find_first_of(std::string_view(";,\0", 3)) != std::string::npos) {
                return false;
            }
        }
        return true;
    }

    // The connection string: "file=data.edb;force_flush=yes", in the order of the first calls.
    std::string ConnectionString() const {
        std::string text;
        for (const auto& [key, value] : m_items) {
            if (!text.empty()) {
                text += ';';
            }
            text.append(key).append("=").append(value);
        }
        return text;
    }

  private:
    static std::string_view YesNo(bool on) { return on ? "yes" : "no"; }

    Settings& Set(std::string_view key, std::uint32_t value) {
        return Set(key, std::to_string(value));
    }
    Settings& Set(std::string_view key, std::string_view value) {
        for (auto& item : m_items) {
            if (item.first == key) {
                item.second = value;
                return *this;
            }
        }
        m_items.emplace_back(key, value);
        return *this;
    }

    std::vector<std::pair<std::string_view, std::string>> m_items;  // the keys are static texts
};

}  // namespace cpp1

}  // namespace k9erepl

#endif  // K9EREPL_SETTINGS_HPP
