// Process helpers of the platform's core library.
//
// The programs run with stdin from /dev/null and inherit stdout and stderr.
// Each call waits for its program; success is exit status 0 only.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Runs `path` with the NULL-terminated argument list that follows `flags`
// (argv[0] is `path`). The flags word is accepted as given. Returns 0 when the
// program exited with status 0, non-zero otherwise (see VLIBCErrGet).
int VLIBCExecl(const char* path, int flags, ...);

// Runs `program` with up to four arguments; the first NULL ends the list.
// Returns 0 on success and a negative value on failure (see VLIBCErrGet).
int VLIBCExec(const char* program, const char* arg1, const char* arg2, const char* arg3,
              const char* arg4);

// The last error code of this layer in the calling thread: an errno value when a
// system call failed, 0x100 + exit status when a program exited non-zero,
// 0x200 + signal number when it was killed.
int VLIBCErrGet(void);

// Non-zero when `path` exists (stat succeeds, links followed), 0 otherwise.
int VLIBCFileExist(const char* path);

#ifdef __cplusplus
}
#endif
