// Chooses the writer of a storage file from its settings. Called when a storage file is opened.
#ifndef K9EREPL_WRITERS_WRITER_FACTORY_H
#define K9EREPL_WRITERS_WRITER_FACTORY_H

#include <memory>

#include "writers/storage_writer.h"

namespace k9erepl {

// Reads the setting async_mode ("yes" or "no" in any case of letters, default "no"), and for "yes"
// also aux_affinity (bit n lets the writing thread run on processor n; default 0: on any) and
// async_buffer_size (0 to 4096 kilobytes, default 16). The caller owns the writer; `state` outlives
// it.
// Throws K9eStorageException: RC_BAD_SIZE for a refused value, the writers' own codes. Throws
// std::bad_alloc.
std::unique_ptr<StorageWriter> CreateStorageWriter(const char* connStr, StorageFileState* state);

}  // namespace k9erepl

#endif  // K9EREPL_WRITERS_WRITER_FACTORY_H
