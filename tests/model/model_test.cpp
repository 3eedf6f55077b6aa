// The model-based test as part of every test run: 200 seeds of 2,000 operations, under Wine 40,
// under a sanitizer 20, in groups that may run side by side. A failure prints the seed, a shortened
// script and how to replay it.
#include <gtest/gtest.h>

#include <iostream>

#include "model/seed_run.h"
#include "support/call_layer.h"

namespace k9erepl::model {

namespace {

constexpr u64 kSeedsPerGroup = K9EREPL_MODEL_GROUP_SEEDS;
constexpr std::size_t kOperations = 2000;

// Nothing here is about the disk, which would take most of the time.
class NoFlushes : test::CallLayer<NoFlushes> {
  public:
    NoFlushes() {
        Take<&test::CallTable::flushFile, &NoFlushes::FlushFile>();
        Take<&test::CallTable::flushDirectory, &NoFlushes::FlushDirectory>();
    }

  private:
    friend test::CallLayer<NoFlushes>;
    bool FlushFile(platform::NativeFile /*file*/) { return true; }
    bool FlushDirectory(const char* /*path*/) { return true; }
};

class ModelGroup : public ::testing::TestWithParam<u64> {
  protected:
    ModelGroup() { KeepQuiet(); }

  private:
    const NoFlushes m_noFlushes;
};

TEST_P(ModelGroup, AgreesWithTheLibrary) {
    for (u64 i = 0; i < kSeedsPerGroup; ++i) {
        const u64 seed = GetParam() * kSeedsPerGroup + i;
        // Before the run: should it end the process, the last one told is the one.
        std::cout << "model_run --seed " << seed << " --operations " << kOperations << std::endl;
        const std::string report = RunAndReport(
            {.seed = seed, .operations = kOperations, .only = {}, .async = {}}, &RunHere);
        EXPECT_TRUE(report.empty()) << report;
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, ModelGroup, ::testing::Range<u64>(0, 20));

}  // namespace

}  // namespace k9erepl::model
