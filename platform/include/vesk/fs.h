// File-system helpers of the platform's storage library.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Creates `path` and every missing parent. `mode` 0 means 0755; `uid`/`gid`
// -1 leave ownership as created; `flags` and `acl` are accepted as given.
// An existing directory is success. Returns 0 on success, -1 on failure
// (errno and VLIBCErrGet tell why).
int VESKFSMkdirP(const char* path, int flags, int mode, int uid, int gid, int acl);

#ifdef __cplusplus
}
#endif
