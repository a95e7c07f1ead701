/* fsic: integrity control of files and directories on Linux block devices.
 * The umbrella header: includes every public header of the library. */
#ifndef FSIC_FSIC_H
#define FSIC_FSIC_H

#include <fsic/buffer.h>
#include <fsic/check.h>
#include <fsic/defs.h>
#include <fsic/disk_list.h>
#include <fsic/gost_r3411_94.h>
#include <fsic/icl.h>
#include <fsic/list.h>
#include <fsic/log.h>
#include <fsic/mount.h>
#include <fsic/ocl.h>
#include <fsic/progress.h>
#include <fsic/rbtree.h>
#include <fsic/util.h>
#include <fsic/volume_id.h>

#endif /* FSIC_FSIC_H */
