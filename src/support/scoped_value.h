// Gives a variable another value until the end of a scope. Whoever raises a flag, counts how deep
// it is nested or says what is being done keeps one on its stack.
#ifndef K9EREPL_SUPPORT_SCOPED_VALUE_H
#define K9EREPL_SUPPORT_SCOPED_VALUE_H

#include <type_traits>

namespace k9erepl {

//     const ScopedValue walking(m_walks, m_walks + 1);
//
// At its end the variable gets back what it was at the beginning, so scopes of one variable must
// end in the opposite order, as those on one thread's stack do.
template <typename T>
class ScopedValue {
  public:
    ScopedValue(T& variable, std::type_identity_t<T> now)
        : m_variable(variable), m_before(variable) {
        m_variable = now;
    }
    ~ScopedValue() { m_variable = m_before; }
    ScopedValue(const ScopedValue&) = delete;
    ScopedValue& operator=(const ScopedValue&) = delete;

  private:
    T& m_variable;
    const T m_before;
};

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_SCOPED_VALUE_H
