// The vocabulary of the tests of transactions and flushing; see the header.
#include "engine/flush_fixture.h"

#include <gtest/gtest.h>

#include <utility>

#include "format/storage_file_format.h"
#include "support/file_bytes.h"

namespace k9erepl::test {

std::string With(std::string_view settings, std::string_view more) {
    return std::string(settings) + std::string(more);
}

std::string BlockFull(std::string_view text) {
    std::string full(114, '.');
    full.replace(0, text.size(), text);
    return full;
}

namespace {

// One item at `bytes`, of which `left` are there; its size, 0 when there is none.
u64 DescribeItem(const u8* bytes, u64 left, u32* lastSequence, Strings* items) {
    if (left >= kCommitBlockSize && LoadUnaligned<u32>(bytes) == kCommitSignature) {
        const auto block = LoadUnaligned<TCommitBlock>(bytes);
        const bool linked = items->empty() || block.prevSequence == *lastSequence;
        *lastSequence = block.sequence;
        items->push_back(linked ? "c" + std::to_string(block.commitRev) : "broken");
        return kCommitBlockSize;
    }
    if (left >= kRecordHeadSize && LoadUnaligned<u32>(bytes) == kRecordSignature) {
        const auto head = LoadUnaligned<TRecordHead>(bytes);
        items->push_back("r" + std::to_string(head.rev));
        return head.size;
    }
    return 0;
}

}  // namespace

Strings FileItems(const std::string& path) {
    const std::vector<u8> bytes = ReadBytes(path);
    Strings items;
    u32 lastSequence = 0;
    u64 offset = kFirstCommitOffset;
    u64 size = 1;
    while (size > 0 && offset < bytes.size()) {
        size = DescribeItem(bytes.data() + offset, bytes.size() - offset, &lastSequence, &items);
        offset += size;
    }
    return items;
}

Strings FileItems(const TestStorage& storage) {
    storage.WaitForWriter();
    return FileItems(storage.Path());
}

void Notified::DoesOnce(std::function<void()> action) {
    m_action = [action = std::move(action)](i64) mutable {
        if (const auto once = std::exchange(action, nullptr)) {
            once();
        }
    };
}

void Notified::SetAsOnFlush(TestStorage& storage) {
    EXPECT_EQ(K9eReplStorageSetOnFlushCallback(storage.Handle(), &Call, this), RC_OK);
}

void Notified::SetAsOnWriteToFile(TestStorage& storage) {
    EXPECT_EQ(K9eReplStorageSetOnWriteToFileCallback(storage.Handle(), &Call, this), RC_OK);
}

Revs Notified::Calls() const {
    const std::lock_guard guard(m_mutex);
    return m_calls;
}

void K9EREPL_CALL Notified::Call(i64 rev, void* self) {
    auto& notified = *static_cast<Notified*>(self);
    {
        const std::lock_guard guard(notified.m_mutex);
        notified.m_calls.push_back(rev);
    }
    if (notified.m_action) {
        notified.m_action(rev);
    }
}

}  // namespace k9erepl::test
