// How virtual operations are called through the tables of an object. For slot_order_test.cpp.
#ifndef K9EREPL_TESTS_API_WINDOWS_MEMBER_CALLS_H
#define K9EREPL_TESTS_API_WINDOWS_MEMBER_CALLS_H

// In 32 bits the object is passed in a register, whichever compiler it is.
#define K9EREPL_MEMBER __thiscall
#ifdef __GNUC__
#pragma GCC diagnostic ignored "-Wattributes"  // its place is a member function, says the compiler
#endif

namespace k9erepl::test {

// Entries of a virtual destructor: Visual C++ has one, which is told whether to deallocate;
// mingw-w64 has two as on every other system, without and with deallocation.
#ifdef _MSC_VER
inline constexpr int kDestructorSlots = 1;
#else
inline constexpr int kDestructorSlots = 2;
#endif

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_API_WINDOWS_MEMBER_CALLS_H
