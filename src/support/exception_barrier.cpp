// The codes and messages of exceptions; see the header.
#include "support/exception_barrier.h"

#include <k9erepl/storage.h>

#include <exception>
#include <new>

#include "platform/thread.h"
#include "support/log.h"

namespace k9erepl {

void LogException(u32 code, const char* call, const char* what) {
    LOG_ERROR_CODE(code, kLogStorage, "An exception ended the call;call %s,exception '%s'", call,
                   what);
}

ResultCode EndException(const char* call, ExceptionLogger logger) {
    platform::PassThreadEnd();
    try {
        throw;
    } catch (const std::bad_alloc& e) {
        logger(RC_NO_MEMORY, call, e.what());
        return RC_NO_MEMORY;
    } catch (const std::exception& e) {
        logger(RC_SYSTEM_ERROR, call, e.what());
    } catch (...) {
        logger(RC_SYSTEM_ERROR, call, "not a std::exception");
    }
    return RC_SYSTEM_ERROR;
}

}  // namespace k9erepl
