// This system's numbers.
#include "tools/system_errors.h"

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

namespace k9erepl::test {

int BrokenPipeError() {
    return ERROR_NO_DATA;
}

}  // namespace k9erepl::test
