// Reads the two words and logs the two messages; see the header.
#include "support/yes_no.h"

#include <k9erepl/storage.h>

#include <string>

#include "support/log.h"
#include "support/params.h"

namespace k9erepl {

ResultCode ReadYesNo(const char* connStr, const char* key, YesNo* setting) {
    std::string value;
    GetParam(connStr, key, value);
    setting->given = !value.empty();
    setting->yes = value.starts_with("yes");
    if (setting->given && !setting->yes && !value.starts_with("no")) {
        LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage, "Unknown %s value (%s)", key, value.c_str());
        return RC_INVALID_ARG;
    }
    return RC_OK;
}

void LogYesNo(const char* key, const YesNo& setting) {
    if (setting.given) {
        LOG_INFO(kLogStorage, "Use %s %s", key, setting.yes ? "yes" : "no");
    }
}

}  // namespace k9erepl
