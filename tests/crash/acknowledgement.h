// What the writer of the crash tests tells the test, and how. Used by crash_writer.cpp alone.
#ifndef K9EREPL_TESTS_CRASH_ACKNOWLEDGEMENT_H
#define K9EREPL_TESTS_CRASH_ACKNOWLEDGEMENT_H

#include "platform/int_types.h"

namespace k9erepl::test {

// Writes the 8 bytes of `rev` to standard output, a pipe, which takes them whole or not at all
// whenever the process ends. False when nobody reads any more.
bool WriteAcknowledgement(i64 rev);

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_CRASH_ACKNOWLEDGEMENT_H
