// The storage object around a storage file, as far as the file needs it when a host calls the file
// directly. The engine's storage object implements it (engine/repl_storage.cpp).
#ifndef K9EREPL_SOLID_SOLID_STORAGE_OWNER_H
#define K9EREPL_SOLID_SOLID_STORAGE_OWNER_H

#include "platform/int_types.h"
#include "support/result.h"

namespace k9erepl {

// The storage file does not own it; the owner outlives the storage file.
class SolidStorageOwner {
  public:
    // Runs `work` as one call of the storage: under its lock, and so that the storage outlives it.
    // Returns the result of `work`.
    [[nodiscard]] virtual ResultCode RunAsCall(u32 (*work)(void* ctx), void* ctx) = 0;

  protected:
    ~SolidStorageOwner() = default;
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_SOLID_STORAGE_OWNER_H
