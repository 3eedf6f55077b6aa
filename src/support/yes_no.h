// Settings that are "yes" or "no": the storage's own and those of its file read theirs here.
// async_mode, which takes any case of letters and nothing behind the word, is read by the writer
// factory.
#ifndef K9EREPL_SUPPORT_YES_NO_H
#define K9EREPL_SUPPORT_YES_NO_H

#include "platform/int_types.h"

namespace k9erepl {

struct YesNo {
    bool given = false;  // the connection string has the key, with a value
    bool yes = false;    // only when given
};

// Reads `key`. Only the beginning of a value counts: "yes" or "no". For any other value it logs
// "Unknown KEY value (VALUE)" and returns RC_INVALID_ARG; *setting is not "yes" then.
[[nodiscard]] u32 ReadYesNo(const char* connStr, const char* key, YesNo* setting);

// Logs "Use KEY yes", or "no", for a setting that is given.
void LogYesNo(const char* key, const YesNo& setting);

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_YES_NO_H
