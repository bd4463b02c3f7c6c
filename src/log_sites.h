// Every log line of the library, by name. The labels and line numbers are the
// documented ones that operators' tools match on; keep them as they are.
#pragma once

#include <syslog.h>

#include "log.h"

namespace vesk::dataupdate::log::site {

// utils.cpp
inline constexpr Site kUserAgent{LOG_DEBUG, "utils.cpp", 229, "Use %s as user agent string"};

// file_lock.cpp
inline constexpr Site kLockAcquired{LOG_INFO, "file_lock.cpp", 44, "Acquire lock on file: %s"};
inline constexpr Site kUnlockFailed{LOG_ERR, "file_lock.cpp", 50, "Fail to unlock %s"};
inline constexpr Site kLockReleased{LOG_INFO, "file_lock.cpp", 53, "Release lock on file: %s"};

// project_lock.cpp
inline constexpr Site kReaderCheckSupportedFailed{LOG_ERR, "project_lock.cpp", 30,
                                                  "Failed to check supported: %s"};
inline constexpr Site kReaderNotSupported{LOG_ERR, "project_lock.cpp", 49,
                                          "[%s] is not supported, skip getting lock"};
inline constexpr Site kReaderOpenFailed{LOG_ERR, "project_lock.cpp", 55,
                                        "Failed to open lock file: %s"};
inline constexpr Site kReaderTimeout{LOG_ERR, "project_lock.cpp", 66, "Get file lock timeout."};
inline constexpr Site kReaderReleaseFailed{LOG_ERR, "project_lock.cpp", 78,
                                           "Failed to release file lock"};

// updater.cpp
inline constexpr Site kFileGone{LOG_ERR, "updater.cpp", 49, "File %s is gone"};
inline constexpr Site kDigestMismatch{LOG_ERR, "updater.cpp", 56, "File %s digest check fail"};
inline constexpr Site kPrepareDiff{LOG_NOTICE, "updater.cpp", 75, "Prepare diff update: %s"};
inline constexpr Site kDiffFellBack{LOG_WARNING, "updater.cpp", 83,
                                    "Diff update fail, try full update: %s"};
inline constexpr Site kPrepareFull{LOG_NOTICE, "updater.cpp", 84, "Prepare full update: %s"};
inline constexpr Site kApplyUpdate{LOG_NOTICE, "updater.cpp", 92, "Apply update: %s"};
inline constexpr Site kNeverInstalled{LOG_ERR, "updater.cpp", 118,
                                      "%s not been updated yet. Need Fix"};
inline constexpr Site kFileCheckFailed{LOG_INFO, "updater.cpp", 123,
                                       "%s file check fail, Need Fix"};
inline constexpr Site kTryFix{LOG_WARNING, "updater.cpp", 132, "Try to fix database %s"};

// strategy.cpp
inline constexpr Site kSpaceCapacity{LOG_DEBUG, "strategy.cpp", 90, "capacity: %ju"};
inline constexpr Site kSpaceAvailable{LOG_DEBUG, "strategy.cpp", 91, "available: %jd"};
inline constexpr Site kSpaceDelta{LOG_DEBUG, "strategy.cpp", 92, "delta: %jd"};
inline constexpr Site kFullCleanTarballFailed{LOG_ERR, "strategy.cpp", 117,
                                              "Failed to clean tarball '%s': %s"};
inline constexpr Site kFullCleanTmpFailed{LOG_ERR, "strategy.cpp", 125,
                                          "Failed to clean tmp data: %s"};
inline constexpr Site kDiffClearSumFailed{LOG_ERR, "strategy.cpp", 276,
                                          "Failed to clear tmp data: %s"};
inline constexpr Site kDiffClearDeltaFailed{LOG_ERR, "strategy.cpp", 285,
                                            "Failed to clear tmp data: %s"};
inline constexpr Site kDiffClearPackageFailed{LOG_ERR, "strategy.cpp", 294,
                                              "Failed to clear tmp data: %s"};
inline constexpr Site kForceCleanTarballFailed{LOG_ERR, "strategy.cpp", 530,
                                               "Failed to clean tarball '%s': %s"};
inline constexpr Site kForceCleanTmpFailed{LOG_ERR, "strategy.cpp", 537,
                                           "Failed to clean tmp data: %s"};

// hook.cpp
inline constexpr Site kHookInitFailed{LOG_ERR, "hook.cpp", 32,
                                      "Failed to init hook in module [%s] and path [%s]"};
inline constexpr Site kHookArgNotInit{LOG_ERR, "hook.cpp", 84, "Not init or init failed"};
inline constexpr Site kHookSetArgFailed{LOG_ERR, "hook.cpp", 89,
                                        "Failed to set plugin argument key=%s value=%s"};
inline constexpr Site kHookActionNotInit{LOG_ERR, "hook.cpp", 103, "Not init or init failed"};
inline constexpr Site kHookActionFailed{LOG_ERR, "hook.cpp", 107,
                                        "Failed to exec hook at action [%d]"};

// volume_handler.cpp
inline constexpr Site kVolumeSet{LOG_WARNING, "volume_handler.cpp", 45,
                                 "Autoupdate set the new volume at '%s'."};
inline constexpr Site kInitVolumeFailed{LOG_INFO, "volume_handler.cpp", 47,
                                        "Failed to init volume: %s"};
inline constexpr Site kInitVolumeError{LOG_ERR, "volume_handler.cpp", 50,
                                       "Failed to init volume for the Autoupdate: %s"};
inline constexpr Site kMovingDatabases{LOG_WARNING, "volume_handler.cpp", 67,
                                       "Moving databases from %s to %s"};
inline constexpr Site kUpdatesDisabled{
    LOG_INFO, "volume_handler.cpp", 87,
    "Autoupdate for DBs using volume is going to be disabled normally: %s"};
inline constexpr Site kUnmountFailed{LOG_ERR, "volume_handler.cpp", 90,
                                     "Autoupdate failed to handle unmount volume event: %s"};
inline constexpr Site kUnmountIgnored{LOG_DEBUG, "volume_handler.cpp", 94,
                                      "Ignoring the uninteresting event of '%s'."};
inline constexpr Site kMountIgnored{LOG_DEBUG, "volume_handler.cpp", 102,
                                    "Ignoring the uninteresting event of '%s'."};
inline constexpr Site kVolumeInfoFailed{LOG_ERR, "volume_handler.cpp", 109,
                                        "Failed to get volume info for '%s'."};
inline constexpr Site kMountFailed{LOG_ERR, "volume_handler.cpp", 122,
                                   "Ignoring the mount event of '%s': %s"};

// update.cpp
inline constexpr Site kFreshInfoFailed{LOG_INFO, "update.cpp", 131,
                                       "Fail during fresh database info"};
inline constexpr Site kFreshInfoError{LOG_INFO, "update.cpp", 132, "Error message: %s"};
inline constexpr Site kStatusMissing{LOG_INFO, "update.cpp", 170, "%s"};
inline constexpr Site kStatusBad{LOG_WARNING, "update.cpp", 172, "%s"};
inline constexpr Site kStatusBadHint{LOG_WARNING, "update.cpp", 174,
                                     "%s version file gone or corrupted or in the first updating"};
inline constexpr Site kNoVolumeStopAll{LOG_WARNING, "update.cpp", 205,
                                       "There is no volume, stopping operation."};
inline constexpr Site kUpToDate{LOG_INFO, "update.cpp", 248, "'%s' has been up to date"};
inline constexpr Site kUpdateStart{LOG_WARNING, "update.cpp", 252, "Update %s"};
inline constexpr Site kNoVolumeStopOne{LOG_WARNING, "update.cpp", 255,
                                       "There is no volume, stopping updating."};
inline constexpr Site kUpdateDone{LOG_WARNING, "update.cpp", 270,
                                  "Update %s completed and succeed"};
inline constexpr Site kUpdateFailed{LOG_INFO, "update.cpp", 272, "Update %s fail: %s"};
inline constexpr Site kFixDone{LOG_WARNING, "update.cpp", 299, "Fix %s completed and succeed"};
inline constexpr Site kFixFailed{LOG_INFO, "update.cpp", 301, "Fix %s fail: %s"};

// manifest.cpp, journal.cpp, staged_tree.cpp (this library's own lines)
inline constexpr Site kManifestNotOfRelease{LOG_WARNING, "manifest.cpp", 40,
                                            "Manifest %s is not that of release %d"};
inline constexpr Site kManifestUnreadable{LOG_WARNING, "manifest.cpp", 55, "Manifest unusable: %s"};
inline constexpr Site kFileSizeMismatch{LOG_ERR, "manifest.cpp", 95, "File %s size check fail"};
inline constexpr Site kFileNotOfRelease{LOG_ERR, "manifest.cpp", 125,
                                        "File %s is not part of the installed release"};
inline constexpr Site kManifestCheckFailed{
    LOG_WARNING, "update.cpp", 290, "%s installed files do not match the manifest, reinstall"};
inline constexpr Site kInstallNotADirectory{LOG_WARNING, "staged_tree.cpp", 40,
                                            "%s is not a directory, replacing it by one"};
inline constexpr Site kJournalCompleted{LOG_WARNING, "journal.cpp", 80,
                                        "Completed an unfinished step: %s"};
inline constexpr Site kJournalUndone{LOG_WARNING, "journal.cpp", 85,
                                     "Undid an unfinished step: %s"};
inline constexpr Site kJournalFailed{LOG_ERR, "journal.cpp", 90,
                                     "Fail to recover the unfinished step %s: %s"};
inline constexpr Site kLeftOverRemoved{LOG_WARNING, "journal.cpp", 95,
                                       "Removed what a killed run left: %s"};

// Bare line, no "%s:%d " prefix.
inline constexpr Site kHwidFailed{LOG_ERR, nullptr, 0, "Failed to init hwid context"};

}  // namespace vesk::dataupdate::log::site
