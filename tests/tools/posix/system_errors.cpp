// This system's numbers.
#include "tools/system_errors.h"

#include <cerrno>

namespace k9erepl::test {

int BrokenPipeError() {
    return EPIPE;
}

}  // namespace k9erepl::test
