// The shared vocabulary of the index tests.
#include "index/index_fixture.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "index/index_file.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace k9erepl::test {

namespace {

constexpr i64 kFirstOffset = 1056;
constexpr i64 kBlockDistance = 1000;

void Put(std::vector<u8>& bytes, u64 value, u32 size) {
    for (u32 i = 0; i < size; ++i) {
        bytes.push_back(static_cast<u8>(value >> (8 * i)));
    }
}

u64 Take(const std::vector<u8>& bytes, std::size_t at) {
    u64 value = 0;
    for (u32 i = 0; i < sizeof value; ++i) {
        value |= u64{bytes.at(at + i)} << (8 * i);
    }
    return value;
}

void SetLeakReports([[maybe_unused]] bool on) {
#if defined(__SANITIZE_ADDRESS__)
    on ? __lsan_enable() : __lsan_disable();
#endif
}

}  // namespace

u32 IndexChecksum(const Entries& entries) {
    u32 checksum = 0;
    for (const auto& [rev, offset] : entries) {
        const auto difference = static_cast<u64>(rev) - static_cast<u64>(offset);
        checksum ^= static_cast<u32>(difference % 0x100000000);
        checksum ^= static_cast<u32>(difference / 0x100000000);
    }
    return checksum;
}

std::vector<u8> IndexFileBytes(const Entries& entries, u32 blockSize) {
    std::vector<u8> bytes;
    for (const char c : {'K', '9', '_', 'E', 'R', 'E', 'P', 'L', '_', 'I', 'D', 'X'}) {
        bytes.push_back(static_cast<u8>(c));
    }
    Put(bytes, 3, 4);
    Put(bytes, entries.size(), 4);
    Put(bytes, blockSize, 4);
    Put(bytes, IndexChecksum(entries), 4);
    Put(bytes, 0, 4);
    for (const auto& [rev, offset] : entries) {
        Put(bytes, static_cast<u64>(rev), 8);
        Put(bytes, static_cast<u64>(offset), 8);
    }
    return bytes;
}

Entries EntriesOf(const std::vector<u8>& bytes) {
    Entries entries;
    for (std::size_t at = 32; at + 16 <= bytes.size(); at += 16) {
        entries.emplace_back(static_cast<i64>(Take(bytes, at)),
                             static_cast<i64>(Take(bytes, at + 8)));
    }
    EXPECT_EQ(bytes, IndexFileBytes(entries));
    i64 lastRev = 0;
    i64 lastOffset = -1;
    for (const auto& [rev, offset] : entries) {
        EXPECT_GT(rev, lastRev);
        EXPECT_GT(offset, lastOffset);
        lastRev = rev;
        lastOffset = offset;
    }
    return entries;
}

void WriteImage(const IndexImage& image, std::vector<u8>* file) {
    if (image.IsWhole()) {
        file->assign(image.Whole(), image.Whole() + image.WholeSize());
        return;
    }
    const std::size_t end = std::size_t{image.TailOffset()} + image.TailSize();
    file->resize(std::max(file->size(), end));
    std::copy_n(image.Tail(), image.TailSize(), file->begin() + image.TailOffset());
    std::copy_n(image.Header(), sizeof(TIndexHeader), file->begin());
}

bool WaitFor(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

std::string SysErr(SystemErrorKind kind) {
    return std::to_string(platform::SystemErrorOf(kind));
}

LeaksAllowed::LeaksAllowed() {
    SetLeakReports(false);
}

LeaksAllowed::~LeaksAllowed() {
    SetLeakReports(true);
}

Blocks& Blocks::Add(i64 rev, i64 offset) {
    m_index.try_emplace(rev, rev, offset, nullptr);
    return *this;
}

Blocks& Blocks::AddInMemory(i64 rev, i64 offset) {
    return AddBlock(rev, offset, 100);
}

Blocks& Blocks::AddEmpty(i64 rev) {
    return AddBlock(rev, -1, 0);
}

Blocks& Blocks::AddMany(u32 count) {
    i64 rev = m_index.empty() ? 0 : m_index.rbegin()->first;
    for (u32 i = 0; i < count; ++i) {
        ++rev;
        Add(rev, kFirstOffset + rev * kBlockDistance);
    }
    return *this;
}

Entries Blocks::All() const {
    Entries entries;
    for (const auto& [rev, entry] : m_index) {
        entries.emplace_back(rev, entry.fileOffset.load());
    }
    return entries;
}

Blocks& Blocks::AddBlock(i64 rev, i64 offset, u64 used) {
    K9eReplBlock& block = m_memory.emplace_back();
    block.used = used;
    m_index.try_emplace(rev, rev, offset, &block);
    return *this;
}

u32 FakeStorage::FlushOnIdle() {
    ++m_idleCalls;
    if (onIdle) {
        onIdle();
    }
    return RC_OK;
}

void GateForWrites::Install() {
    platform::TheSystemCalls().writeFile = &GateForWrites::Write;
}

void GateForWrites::Shut() {
    s_open = false;
    s_reached = false;
}

i64 GateForWrites::Write(platform::NativeFile file, const void* data, u32 size) {
    s_reached = true;
    while (!s_open) {
        std::this_thread::yield();
    }
    return platform::NativeSystemCalls().writeFile(file, data, size);
}

void IndexObjectTest::Make(u32 waitMs, const std::string& settings) {
    const std::string connStr = "file=" + m_folder.File("data.edb") + settings;
    m_index = std::make_unique<IndexObject>(connStr.c_str(), m_storage, kBlockSize, waitMs);
}

void IndexObjectTest::MakeStarted(u32 waitMs, const std::string& settings) {
    Make(waitMs, settings);
    ASSERT_EQ(m_index->Start(), RC_OK);
}

void IndexObjectTest::MakeUnending() {
    {
        const LeaksAllowed leaksAllowed;
        Make();
    }
    Fail(SystemCall::kResumeThread, 1);
    platform::TheSystemCalls().terminateThread = [](void* thread, u32 exitCode) {
        platform::NativeSystemCalls().terminateThread(thread, exitCode);
        return false;
    };
}

void IndexObjectTest::WaitForThread() {
    ASSERT_TRUE(WaitFor([this] { return !m_index->IsBusy(); }));
}

}  // namespace k9erepl::test
