// Runs a script on the library and on the model, and compares everything that both tell.
#ifndef K9EREPL_TESTS_MODEL_RUNNER_H
#define K9EREPL_TESTS_MODEL_RUNNER_H

#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "model/file_look.h"
#include "model/model.h"
#include "model/operation.h"
#include "model/storage_client.h"
#include "model/verdict.h"

namespace k9erepl::model {

// One run. Its files are in `folder`, which is its own and exists.
class Runner {
  public:
    explicit Runner(const std::string& folder);

    // The first difference, none when there is none. `progress`, unless null, always tells the
    // position of the operation that runs. Called once.
    std::optional<Failure> Run(const Script& script, std::atomic<std::size_t>* progress = nullptr);

  private:
    void Step(const Operation& operation);
    void Do(OpKind kind, const Operation& operation);

    // Transactions and records
    void Insert(const SizeChoice& size, u32 seed, const i64* prepared);
    void InsertMany(const Operation& operation);

    // Reading
    struct Walk;
    void Enumerate(const Operation& operation, i64 from, i64 to, bool fromDataSource);
    void EnumerateAll();
    u32 OnRecord(Walk& walk, const K9eReplRec& record);
    void EnumerateWithoutVisitor(i64 from, i64 to);

    // Removing
    void Clear(i64 rev, u32 mode, bool all, u32 word);
    void ExpectBackup(const Content& before, bool stoodBefore, u32 word);
    void Truncate();

    // Opening and closing (reopening.cpp)
    void Reopen(const ReopenPlan& plan);
    void Close();
    void Create(const ReopenPlan& plan);
    void TreatIndex(const ReopenPlan& plan);
    void DamageIndex(u32 permille);
    void ForgeIndex(u32 permille, i64 added);
    Settings FittingSettings(const ReopenPlan& plan) const;
    void Load();
    void LookAtFile(u32 word);
    FileLook LookOf(u32 word) const;
    void LookWhileWriting(FileLook look);
    void LetWriterGo(u32 word);
    void WaitForWriter();

    // Comparing
    void ExpectCode(OpKind kind, u32 got, u32 expected);
    void ExpectFlush();
    void ExpectFlushed(const std::vector<i64>& flushed, const Effects& effects);
    void ExpectWritten(Written written);
    void ExpectMarks();
    void ExpectDataSource();

    const std::string m_path;
    const std::string m_indexPath;
    const std::string m_savedIndexPath;
    const std::string m_workPath;
    StorageClient m_client;
    Model m_model;
    Verdict m_verdict;
    // An index saved before something was removed may lead to bytes that are something else now.
    u64 m_generation = 0;
    std::optional<u64> m_savedGeneration;
};

}  // namespace k9erepl::model

#endif  // K9EREPL_TESTS_MODEL_RUNNER_H
