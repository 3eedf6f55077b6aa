// How virtual operations are called through the tables of an object. For slot_order_test.cpp.
#ifndef K9EREPL_TESTS_API_POSIX_MEMBER_CALLS_H
#define K9EREPL_TESTS_API_POSIX_MEMBER_CALLS_H

// As functions are that take the object first.
#define K9EREPL_MEMBER

namespace k9erepl::test {

// Entries of a virtual destructor: without and with deallocation.
inline constexpr int kDestructorSlots = 2;

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_API_POSIX_MEMBER_CALLS_H
