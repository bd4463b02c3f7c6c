/* The read lock of one database, for programs that read its installed files.
 *
 * VESKDBUDGetFileLock takes a shared flock() on
 * "/run/data_update/using_<id>.lock", polling every 100 ms until `timeout`
 * seconds (counted from the call, configuration loading included) have passed.
 * Any number of readers hold it together; an update replacing the files takes
 * it exclusively and so waits for the readers, and readers wait for it.
 * The lock file is never created here: only the library's writers create it, so
 * a database that was never updated has none.
 *
 * Result: the descriptor holding the lock (>= 0, close-on-exec), -1 when the
 * time limit passed, -2 when `id` is NULL, the database is not supported or its
 * lock file cannot be opened. Failures are logged, never thrown.
 *
 * VESKDBUDReleaseFileLock unlocks and closes such a descriptor; a negative
 * argument is ignored, so any result may be passed back unchanged.
 *
 * Both have plain C names and can be called from C.
 */
#pragma once

#include "dataupdate/export.h"

#ifdef __cplusplus
extern "C" {
#endif

VESKDBUD_EXPORT int VESKDBUDGetFileLock(const char* id, unsigned int timeout);
VESKDBUD_EXPORT void VESKDBUDReleaseFileLock(int fd);

#ifdef __cplusplus
}
#endif
