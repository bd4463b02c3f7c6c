// Data volumes of the platform's storage library.
//
// The data volumes are the mount points from /proc/self/mountinfo matching
// "/volume[0-9]*", or, when VESK_VOLUMES is set, exactly the colon-separated
// directories it names.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

#define VESK_VOL_FLAG_RW 0x1u  // mounted read-write

typedef struct VESKVolInfo {
  unsigned int flags;                // VESK_VOL_FLAG_* bits
  int mounted;                       // readiness: the path is a mounted volume
  int stat_ready;                    // readiness: statvfs answers for it
  unsigned long long avail_bytes;    // f_bavail * f_frsize
  char mount_path[4096];             // NUL-terminated
  char fs_type[64];                  // file-system type, e.g. "ext4", "nfs"
  struct VESKVolInfo* next;          // next record of an enumeration list
} VESKVolInfo;

// The data volumes as a linked list (NULL on failure or when there is none:
// VLIBCErrGet tells which; 0 means none). `flags` and `mounted_only` are
// accepted as given. Release with VESKMountVolInfoFree.
VESKVolInfo* VESKMountVolAllEnum(int flags, int mounted_only);

// Fills `info` for the volume mounted at `path`; -1 on failure, 0 on success.
int VESKMountVolInfoGet(const char* path, VESKVolInfo* info);

void VESKMountVolInfoFree(VESKVolInfo* list);

// Non-zero when the volume may host services: refuses network file systems and
// read-only mounts.
int VESKVolumeServicePolicy(const VESKVolInfo* info);

#ifdef __cplusplus
}
#endif
