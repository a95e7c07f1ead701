// Writing and reading volume-identifier records inside larger blobs.
#ifndef FSIC_FS_VOLUME_ID_INTERNAL_H
#define FSIC_FS_VOLUME_ID_INTERNAL_H

#include <fsic/buffer.h>
#include <fsic/volume_id.h>

FSIC_BEGIN_DECLS

// Appends the identifier's record to a write buffer (the buffer's status).
fsic_status _fs_write_volume_id_to_rbuf(const fs_volume_id *id, wb *buf) FSIC_NOEXCEPT;

// Reads one identifier record: 0, 1 (blob too short or unknown kind), 3.
fsic_status _fs_read_volume_id_from_rbuf(rb *buf, fs_volume_id **out) FSIC_NOEXCEPT;

FSIC_END_DECLS

#endif // FSIC_FS_VOLUME_ID_INTERNAL_H
