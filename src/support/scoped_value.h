// Gives a variable another value until the end of a scope. Used where a flag is raised, a depth of
// nesting is counted, or the operation under way is noted: also an exception brings the variable
// back.
#ifndef K9EREPL_SUPPORT_SCOPED_VALUE_H
#define K9EREPL_SUPPORT_SCOPED_VALUE_H

#include <type_traits>

namespace k9erepl {

//     const ScopedValue walking(m_walks, m_walks + 1);
//
// At its end the variable gets back the value that it had at the beginning, whatever was assigned
// meanwhile. Scopes of one variable must therefore end in the opposite order, as those on the stack
// of one thread do. The variable needs a lock of its own if several threads use it.
template <typename T>
class ScopedValue {
  public:
    // `variable` outlives this object. T comes from the variable alone; `now` is converted to it.
    ScopedValue(T& variable, std::type_identity_t<T> now)
        : m_variable(variable), m_before(variable) {
        m_variable = now;
    }
    ~ScopedValue() { m_variable = m_before; }
    ScopedValue(const ScopedValue&) = delete;
    ScopedValue& operator=(const ScopedValue&) = delete;

  private:
    T& m_variable;
    const T m_before;  // what the destructor assigns
};

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_SCOPED_VALUE_H
