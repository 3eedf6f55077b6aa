// What the exported functions do beyond forwarding: creating, deleting, handing out the file.
#include <gtest/gtest.h>
#include <k9erepl/storage_interfaces.h>

#include "engine/flush_fixture.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

std::string IndexPath(const TestStorage& storage) {
    return storage.Path() + "-idx";
}

}  // namespace

TEST(StartupAndCleanup, DoNothing) {
    EXPECT_EQ(K9eReplStorageStartup(), RC_OK);
    EXPECT_EQ(K9eReplStorageStartup(), RC_OK);
    K9eReplStorageCleanup();
}

TEST(NullPointers, AreRefusedWithoutAMessage) {
    const LogCapture log;
    EXPECT_EQ(K9eReplStorageOpen(nullptr, nullptr), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageCreate(nullptr, 0), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageInsert(nullptr, nullptr), RC_INVALID_ARG);
    EXPECT_TRUE(log.Messages().empty()) << log;
}

TEST(CreateExport, MakesTheFileWithoutOpeningAStorage) {
    TestStorage storage("", Start::kNothing);
    EXPECT_EQ(storage.TryCreate(), RC_OK);
    EXPECT_EQ(FileItems(storage), Strings({"c0"}));
    EXPECT_FALSE(Exists(IndexPath(storage)));
}

TEST(DeleteExport, DeletesTheIndexFileAndTheStorageFile) {
    TestStorage storage(kFlushAlways);
    storage.InsertCommitted({"one"});
    storage.Close();
    ASSERT_TRUE(Exists(IndexPath(storage)));
    EXPECT_EQ(K9eReplStorageDelete(storage.ConnStr().c_str()), RC_OK);
    EXPECT_FALSE(Exists(storage.Path()));
    EXPECT_FALSE(Exists(IndexPath(storage)));
}

TEST(DeleteExport, IgnoresWhatBecameOfTheIndexFile) {
    TestStorage storage("", Start::kCreated);
    ASSERT_FALSE(Exists(IndexPath(storage)));
    EXPECT_EQ(K9eReplStorageDelete(storage.ConnStr().c_str()), RC_OK);
    EXPECT_FALSE(Exists(storage.Path()));
}

TEST(DeleteExport, ReturnsTheResultOfTheStorageFile) {
    TestStorage storage("", Start::kNothing);
    EXPECT_EQ(K9eReplStorageDelete(storage.ConnStr().c_str()), RC_SYSTEM_ERROR);
}

TEST(CloseExport, AnswersOkAlsoWhenItDestroysTheStorage) {
    TestStorage storage;
    void* duplicate = nullptr;
    ASSERT_EQ(K9eReplStorageDuplicateHandle(storage.Handle(), &duplicate), RC_OK);
    EXPECT_EQ(K9eReplStorageClose(duplicate), RC_OK);
    storage.Close();  // expects RC_OK
}

TEST(GetLLStorageExport, HandsOutTheFileOfTheStorage) {
    TestStorage storage(kFlushAlways);
    storage.InsertCommitted({"one", "two"});
    EXPECT_EQ(storage.WaitForWriter(), RC_OK);
    void* out = nullptr;
    ASSERT_EQ(K9eReplStorageGetLLStorage(storage.Handle(), &out), RC_OK);
    auto* file = static_cast<IK9eReplLLStorage*>(out);
    Revs seen;
    const u32 rc = file->ScanFile(
        [](u64, const K9eReplRec* rec, void* ctx) -> u32 {
            static_cast<Revs*>(ctx)->push_back(i64{rec->rev});
            return RC_OK;
        },
        [](void* ctx, i64, i64 commitRev) -> u32 {
            static_cast<Revs*>(ctx)->push_back(-commitRev);
            return RC_OK;
        },
        &seen);
    EXPECT_EQ(rc, RC_OK);
    EXPECT_EQ(seen, Revs({0, 1, 2, -2}));
    EXPECT_EQ(storage.DataSource().AddRef(), 2U) << "no reference was added";
    EXPECT_EQ(storage.DataSource().Release(), 1U);
}

TEST(GetLLStorageExport, NeedsAnOpenFile) {
    TestStorage storage(kInMemory, Start::kNothing);
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    void* out = &storage;
    EXPECT_EQ(K9eReplStorageGetLLStorage(storage.Handle(), &out), RC_FILE_NOT_OPEN);
    EXPECT_EQ(out, &storage);
}

}  // namespace k9erepl::test
