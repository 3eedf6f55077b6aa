// Fuzz target: the input is a script of calls, twelve bytes each, on a storage in memory or with a
// file. The model says what each must answer (tests/model).
#include "fuzz/target.h"
#include "model/runner.h"
#include "model/seed_run.h"

namespace k9erepl::fuzz {

namespace {

using model::i64;
using model::OpKind;
using model::u32;

constexpr std::size_t kCallsMax = 400;
constexpr std::array kKinds = {
    OpKind::kBegin,     OpKind::kCommit,         OpKind::kRollback,
    OpKind::kInsert,    OpKind::kInsertPrepared, OpKind::kInsertMany,
    OpKind::kEnumerate, OpKind::kEnumerateFrom,  OpKind::kEnumerateWithoutVisitor,
    OpKind::kClear,     OpKind::kClearAll,       OpKind::kTruncate,
    OpKind::kLoad,      OpKind::kFlushOnIdle,    OpKind::kLookAtFile,
    OpKind::kReopen,    OpKind::kSetLifenum,     OpKind::kHoldWriter,
};
// What a visitor may do in the middle of an enumeration.
constexpr std::array kActions = {
    OpKind::kInsert,   OpKind::kInsertPrepared, OpKind::kClear, OpKind::kClearAll,
    OpKind::kTruncate, OpKind::kCommit,         OpKind::kBegin, OpKind::kEnumerate,
};
constexpr std::array<i64, 8> kShifts = {0, 1, -1, -2, 2, 10, 100, -100};
constexpr std::array<i64, 8> kForgeries = {-32, -24, -1, 1, 24, 32, 100, 1000000};
constexpr std::array<i64, 4> kFarShifts = {1000, 5000000000, -1000000, model::kLowestRev};
constexpr std::array<u32, 8> kStopCodes = {1, 5, 12, 27, 3, 4, 0x8011, 0xFFFFFFFF};
constexpr std::array<u32, 8> kClearModes = {0, 1, 2, 3, 4, 7, 0x80000000, 0xFFFFFFFF};

model::RevChoice RevChoiceOf(std::uint8_t place, std::uint8_t permille) {
    model::RevChoice choice;
    choice.place = static_cast<model::RevPlace>(place % 7U);
    choice.permille = u32{permille} * 999 / 255;
    const std::uint8_t shift = place / 7U;
    choice.shift = shift < 32 ? kShifts[shift % 8U] : kFarShifts[shift % 4U];
    return choice;
}

void ReadSettings(Input& input, model::ReopenPlan& plan) {
    const auto number = static_cast<u32>(input.Number(2)) % model::CombinationCount();
    model::Random random(input.Byte());
    plan.settings = model::CombinationOf(number, random);
    // Files of MiB take the time of a hundred small ones.
    plan.settings.initialMebibytes = 0;
    plan.settings.deltaMebibytes = 0;
    plan.settings.readBuffers = 1;
}

model::ReopenPlan ReadReopening(Input& input) {
    model::ReopenPlan plan;
    ReadSettings(input, plan);
    plan.index = static_cast<model::IndexFate>(input.Below(5));
    plan.create = static_cast<model::CreateFirst>(input.Byte() / 4 % 20);
    if (plan.create > model::CreateFirst::kDelete) {
        plan.create = model::CreateFirst::kNo;
    }
    const std::uint8_t flags = input.Byte();
    plan.load = flags % 8U != 7;
    plan.settings.async = flags / 8U % 2U == 1;
    plan.tooSmall = flags / 16U % 2U == 1;
    plan.saveIndex = flags / 32U % 2U == 1;
    plan.damagePermille = u32{input.Byte()} * 999 / 255;
    plan.forgery = input.OneOf(kForgeries);
    input.Number(2);
    return plan;
}

// The eleven bytes behind the kind.
void ReadCall(Input& input, model::Operation& call) {
    const auto from = static_cast<std::uint8_t>(input.Byte());
    const auto to = static_cast<std::uint8_t>(input.Byte());
    const auto rev = static_cast<std::uint8_t>(input.Byte());
    call.from = RevChoiceOf(from, input.Byte());
    call.to = RevChoiceOf(to, input.Byte());
    call.rev = RevChoiceOf(rev, static_cast<std::uint8_t>(from ^ to));
    const std::uint8_t size = input.Byte();
    call.size = {static_cast<model::SizeClass>(size % 5U), size / 5U * 14U};
    call.mode = input.OneOf(kClearModes);
    call.word = static_cast<u32>(input.Number(1));
    const std::uint8_t count = input.Byte();
    call.count = call.kind == OpKind::kInsertMany ? 2U + count % 40U : count % 64U;
    call.stopCode = input.OneOf(kStopCodes);
    const std::uint8_t action = input.Byte();
    call.acts = action >= 128;
    call.action = kActions[action % kActions.size()];
}

model::Script ScriptOf(Input& input) {
    model::Script script;
    while (script.empty() || (input.Left() > 0 && script.size() < kCallsMax)) {
        model::Operation call;
        call.kind = input.OneOf(kKinds);
        call.number = script.size();
        call.kind = script.empty() ? OpKind::kReopen : call.kind;
        if (call.kind == OpKind::kReopen) {
            call.reopen = ReadReopening(input);
        } else {
            ReadCall(input, call);
        }
        script.push_back(call);
    }
    return script;
}

std::string Report(const model::Script& script, const model::Failure& failure) {
    std::string text;
    for (const model::Operation& call : script) {
        text += Describe(call) + "\n";
    }
    return text + "call " + std::to_string(failure.position) + ": " + failure.what + ": " +
           failure.details;
}

}  // namespace

}  // namespace k9erepl::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    namespace model = k9erepl::model;
    model::KeepQuiet();
    k9erepl::fuzz::Input input(data, size);
    const model::Script script = k9erepl::fuzz::ScriptOf(input);
    const auto failure = model::RunHere(script);
    k9erepl::fuzz::Expect(failure ? k9erepl::fuzz::Report(script, *failure) : "");
    return 0;
}
