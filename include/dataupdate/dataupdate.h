// Everything of libveskdbud's public interface in one include.
#pragma once

#include "dataupdate/config.h"
#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/hook.h"
#include "dataupdate/io_utils.h"
#include "dataupdate/project_lock.h"
#include "dataupdate/records.h"
#include "dataupdate/strategy.h"
#include "dataupdate/update.h"
#include "dataupdate/updater.h"
#include "dataupdate/volume_handler.h"
