// Names of one storage that lead to one file; see the header.
#include "solid/storage_names.h"

#include <k9erepl/storage.h>

#include <array>
#include <cassert>
#include <string>

#include "index/index_file.h"
#include "platform/one_file.h"
#include "solid/file_replace.h"
#include "support/log.h"
#include "support/params.h"

namespace k9erepl {

ResultCode CheckStorageNames(const char* connStr) {
    assert(connStr != nullptr);
    std::string path;
    GetParam(connStr, "file", path);
    const std::string index = IndexFileName(connStr);
    if (path.empty() || index.empty()) {
        return RC_OK;
    }
    const SqueezeNames squeeze(path);
    const std::array<const std::string*, 4> names = {&path, &squeeze.temporary, &squeeze.backup,
                                                     &squeeze.backupIndex};
    for (const std::string* name : names) {
        if (platform::LeadToOneFile(*name, index)) {
            LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage,
                           "Index file is another file of its storage;file path '%s',index file "
                           "path '%s'",
                           name->c_str(), index.c_str());
            return RC_INVALID_ARG;
        }
    }
    if (IsStorageFile(index)) {
        LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage,
                       "Index file is a storage file;file path '%s',index file path '%s'",
                       path.c_str(), index.c_str());
        return RC_INVALID_ARG;
    }
    return RC_OK;
}

}  // namespace k9erepl
