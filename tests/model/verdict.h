// What a run found: nothing, or the first difference between the library and the model.
#ifndef K9EREPL_TESTS_MODEL_VERDICT_H
#define K9EREPL_TESTS_MODEL_VERDICT_H

#include <optional>
#include <string>
#include <utility>

#include "model/content.h"

namespace k9erepl::model {

struct Failure {
    std::size_t position = 0;  // of the operation, in the script that was run
    std::string what;          // what differs, without numbers: failures with equal ones are one
    std::string details;
};

// Keeps the first failure.
class Verdict {
  public:
    void At(std::size_t position) { m_position = position; }
    bool Failed() const { return m_failure.has_value(); }
    const std::optional<Failure>& First() const { return m_failure; }

    // Each returns whether it held.
    bool Expect(bool holds, const std::string& what, const std::string& details = "") {
        if (!holds && !Failed()) {
            m_failure = Failure{m_position, what, details};
        }
        return holds;
    }
    bool ExpectEqual(i64 got, i64 expected, const char* what) {
        return ExpectIn(got, {expected, expected}, what);
    }
    bool ExpectIn(i64 got, Bounds bounds, const char* what) {
        return bounds.Hold(got) || Differ(got, bounds, what);
    }

  private:
    bool Differ(i64 got, Bounds bounds, const char* what) {
        std::string text =
            "got " + std::to_string(got) + ", expected " + std::to_string(bounds.low);
        if (bounds.low != bounds.high) {
            text += " to " + std::to_string(bounds.high);
        }
        return Expect(false, what, text);
    }

    std::size_t m_position = 0;
    std::optional<Failure> m_failure;
};

}  // namespace k9erepl::model

#endif  // K9EREPL_TESTS_MODEL_VERDICT_H
