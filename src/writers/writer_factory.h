// Chooses the writer of a storage file from its settings. Called when a storage file is opened.
#ifndef K9EREPL_WRITERS_WRITER_FACTORY_H
#define K9EREPL_WRITERS_WRITER_FACTORY_H

#include <memory>

#include "writers/storage_writer.h"

namespace k9erepl {

// Reads async_mode ("yes" or "no" in any case of letters, default "no"), and for "yes" aux_affinity
// (a mask of processors for the writing thread, default 0: any) and async_buffer_size (0 to 4096
// kilobytes, default 16).
// Throws K9eStorageException: RC_BAD_SIZE for a refused value, the writers' own codes. Throws
// std::bad_alloc.
std::unique_ptr<StorageWriter> CreateStorageWriter(const char* connStr, StorageFileState* state);

}  // namespace k9erepl

#endif  // K9EREPL_WRITERS_WRITER_FACTORY_H
