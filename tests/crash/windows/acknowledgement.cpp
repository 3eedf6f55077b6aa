// One call of the system.
#include "crash/acknowledgement.h"

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

namespace k9erepl::test {

bool WriteAcknowledgement(i64 rev) {
    DWORD written = 0;
    return WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), &rev, sizeof rev, &written, nullptr) !=
               FALSE &&
           written == sizeof rev;
}

}  // namespace k9erepl::test
