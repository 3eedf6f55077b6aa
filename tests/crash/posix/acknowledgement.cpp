// One call of the system.
#include "crash/acknowledgement.h"

#include <unistd.h>

namespace k9erepl::test {

bool WriteAcknowledgement(i64 rev) {
    return write(STDOUT_FILENO, &rev, sizeof rev) == sizeof rev;
}

}  // namespace k9erepl::test
