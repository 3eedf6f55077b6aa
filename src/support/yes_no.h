// Settings that are "yes" or "no". The storage and its file read theirs here. The writer factory
// reads async_mode by itself: that takes any case of letters and nothing behind the word.
#ifndef K9EREPL_SUPPORT_YES_NO_H
#define K9EREPL_SUPPORT_YES_NO_H

#include "platform/int_types.h"
#include "support/result.h"

namespace k9erepl {

// One such setting. Each caller decides what the default is when the setting is not given.
struct YesNo {
    bool given = false;  // the connection string has the key, with a value
    bool yes = false;    // never true when the setting is not given
};

// Reads `key` from `connStr`. Only the beginning of the value counts: "yes" or "no", in small
// letters. For any other value it logs "Unknown KEY value (VALUE)" and returns RC_INVALID_ARG;
// setting->yes is then false.
[[nodiscard]] ResultCode ReadYesNo(const char* connStr, const char* key, YesNo* setting);

// Logs "Use KEY yes" or "Use KEY no" for a setting that is given, and nothing for one that is not.
void LogYesNo(const char* key, const YesNo& setting);

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_YES_NO_H
