// The move of the databases to another volume, recorded in the journal as
// "volume_move": copied to "<new volume>/@database/.autoupdate.moving", flushed,
// renamed to the main directory there, recorded as the current volume, and the
// old copy removed.
#pragma once

#include "dataupdate/config.h"

namespace vesk::dataupdate {

// Finishes a move that a killed run left in the journal (copying it again
// while the old copy is there), or forgets it when the old copy is gone; logs
// what it did. Never throws.
void ResumeVolumeMove(ServiceConfig& config);

}  // namespace vesk::dataupdate
