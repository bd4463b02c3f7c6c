// Data volumes of the platform's storage library.
//
// The data volumes are the mount points from /proc/self/mountinfo matching
// "/volume[0-9]*" ("/volume" followed by zero or more digits, nothing else;
// of mounts stacked on one point, the top one), or, when VESK_VOLUMES is set,
// exactly the colon-separated directories it names, in its order (empty
// entries skipped; set but empty means no volumes). The second form needs no
// mounting and serves the demo and the tests.
//
// Failures set the layer's last error (VLIBCErrGet): ENODEV for a path that is
// not a data volume, ENOENT for one that is not mounted or does not exist,
// ENAMETOOLONG, ENOMEM, or the errno of reading the mount table.
// Thread-safe; records are plain C data.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

#define VESK_VOL_FLAG_RW 0x1u  // mounted read-write

typedef struct VESKVolInfo {
  // VESK_VOL_FLAG_RW: for a mount-table volume, mounted "rw" and statvfs shows
  // no ST_RDONLY; for a VESK_VOLUMES directory, writable by this process
  // (access W_OK) on a file system without ST_RDONLY.
  unsigned int flags;
  int mounted;                     // readiness: mounted (VESK_VOLUMES: the directory exists)
  int stat_ready;                  // readiness: statvfs answers for it
  unsigned long long avail_bytes;  // f_bavail * f_frsize; 0 when statvfs fails
  char mount_path[4096];           // NUL-terminated, as listed (or as named in VESK_VOLUMES)
  char fs_type[64];                // "ext4", "nfs", ...: of the mount holding the path
  struct VESKVolInfo* next;        // next record of an enumeration list
} VESKVolInfo;

// The data volumes as a linked list, NULL on failure or when there is none
// (VLIBCErrGet tells which: 0 means none). A VESK_VOLUMES directory that does
// not exist is listed with both readiness fields 0. `flags` and `mounted_only`
// are accepted as given. Release with VESKMountVolInfoFree.
VESKVolInfo* VESKMountVolAllEnum(int flags, int mounted_only);

// Fills `info` (its `next` set to NULL) for the data volume at `path` (a
// trailing "/" is ignored); 0 on success, -1 on failure, e.g. when `path` is
// not a data volume, not mounted or, for VESK_VOLUMES, does not exist.
int VESKMountVolInfoGet(const char* path, VESKVolInfo* info);

// Releases every record of a list from VESKMountVolAllEnum; NULL is fine.
void VESKMountVolInfoFree(VESKVolInfo* list);

// Non-zero when the volume may host services: refuses read-only volumes and
// network file systems (nfs, nfs4, cifs, smb3, smbfs, ncpfs, 9p, ceph,
// glusterfs, afs, coda, lustre, davfs and the FUSE network clients such as
// fuse.sshfs). NULL is refused.
int VESKVolumeServicePolicy(const VESKVolInfo* info);

#ifdef __cplusplus
}
#endif
