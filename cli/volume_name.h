// Volume names as users write and read them:
//   part:SERIAL:N   partition N of the disk with that serial (0: a whole-disk file system)
//   image:NAME:N    partition N of the image disk of that name
//   lvm:GROUP/VOLUME
//   uuid:FS-UUID    a volume known by its file system's UUID (disks without serials)
// A policy may also select a volume by what the running system shows of it:
//   dev:/dev/...    any path to its device node
//   mount:/DIR      the volume mounted on exactly that directory
#ifndef FSIC_CLI_VOLUME_NAME_H
#define FSIC_CLI_VOLUME_NAME_H

#include <fsic/disk_list.h>
#include <fsic/volume_id.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "cli/handles.h"

namespace fsic::cli {

// The name of an identifier, as above; "?" for a kind this program does not know.
std::string volume_name(const fs_volume_id *id);

enum class selector_kind { part, image, lvm, uuid, dev, mount };

struct selector {
  selector_kind kind = selector_kind::part;
  std::string first;   // serial, image name, group, UUID or path
  std::string second;  // the LVM volume's name
  uint32_t number = 0; // partition number
};

// Parses a volume name or selector. false with the reason in *why when it is none.
bool parse_selector(std::string_view text, selector *out, std::string *why);

// The identifier that a volume name (part:, image:, lvm: or uuid:) stands for: 0, 1
// when `sel` is a dev: or mount: selector, which names no identifier, or 3.
fsic_status selector_id(const selector &sel, volume_id_ptr *out);

// The live volume that the selector picks in the list (nullptr: none): 0, or 3.
fsic_status find_selected_volume(fs_disk_list *list, const selector &sel, fs_volume **out);

} // namespace fsic::cli

#endif // FSIC_CLI_VOLUME_NAME_H
