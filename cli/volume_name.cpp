// Volume names: identifiers to text and back, and selectors resolved in a disk list.
#include "cli/volume_name.h"

#include <charconv>

namespace fsic::cli {

namespace {

std::string numbered(const char *prefix, const char *text, uint32_t number) {
  return std::string(prefix) + text + ":" + std::to_string(number);
}

// A partition number: decimal digits only, at most 65535 (the record keeps 16 bits).
bool parse_number(std::string_view text, uint32_t *out) {
  if (text.empty() || text.size() > 5)
    return false;
  uint32_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value > 65535)
    return false;
  *out = value;
  return true;
}

// "SERIAL:N" or "NAME:N": the number after the last colon; the text before it may hold
// colons of its own.
bool parse_numbered(std::string_view text, selector *out, std::string *why) {
  size_t colon = text.rfind(':');
  if (colon == std::string_view::npos || colon == 0) {
    *why = "expected NAME:NUMBER after the prefix";
    return false;
  }
  if (!parse_number(text.substr(colon + 1), &out->number)) {
    *why = "the partition number must be a decimal number from 0 to 65535";
    return false;
  }
  out->first = std::string(text.substr(0, colon));
  return true;
}

bool starts_with(std::string_view text, std::string_view prefix, std::string_view *rest) {
  if (text.substr(0, prefix.size()) != prefix)
    return false;
  *rest = text.substr(prefix.size());
  return true;
}

} // namespace

std::string volume_name(const fs_volume_id *id) {
  switch (fs_volume_id_type(id)) {
    case FS_VOLUME_PARTITION: {
      auto *p = reinterpret_cast<const fs_partition_id *>(id);
      return numbered("part:", p->disk_serial, p->number);
    }
    case FS_VOLUME_IMAGE_PARTITION: {
      auto *p = reinterpret_cast<const fs_image_partition_id *>(id);
      return numbered("image:", p->image_name, p->number);
    }
    case FS_VOLUME_LVM: {
      auto *l = reinterpret_cast<const fs_lvm_volume_id *>(id);
      return std::string("lvm:") + l->group_name + "/" + l->volume_name;
    }
    case FS_VOLUME_ID_UUID:
      return std::string("uuid:") + reinterpret_cast<const fs_uuid_volume_id *>(id)->uuid;
    default:
      return "?";
  }
}

bool parse_selector(std::string_view text, selector *out, std::string *why) {
  std::string_view rest;
  selector sel;
  if (starts_with(text, "part:", &rest)) {
    sel.kind = selector_kind::part;
    if (!parse_numbered(rest, &sel, why))
      return false;
  } else if (starts_with(text, "image:", &rest)) {
    sel.kind = selector_kind::image;
    if (!parse_numbered(rest, &sel, why))
      return false;
  } else if (starts_with(text, "lvm:", &rest)) {
    sel.kind = selector_kind::lvm;
    size_t slash = rest.find('/');
    if (slash == std::string_view::npos || slash == 0 || slash + 1 == rest.size()) {
      *why = "expected lvm:GROUP/VOLUME";
      return false;
    }
    sel.first = std::string(rest.substr(0, slash));
    sel.second = std::string(rest.substr(slash + 1));
  } else if (starts_with(text, "uuid:", &rest)) {
    sel.kind = selector_kind::uuid;
    if (rest.empty()) {
      *why = "expected uuid:FS-UUID";
      return false;
    }
    sel.first = std::string(rest);
  } else if (starts_with(text, "dev:", &rest) || starts_with(text, "mount:", &rest)) {
    sel.kind = text[0] == 'd' ? selector_kind::dev : selector_kind::mount;
    if (rest.empty() || rest[0] != '/') {
      *why = "the path after the prefix must be absolute";
      return false;
    }
    sel.first = std::string(rest);
  } else {
    *why = "a volume is part:SERIAL:N, image:NAME:N, lvm:GROUP/VOLUME, uuid:FS-UUID, "
           "dev:/PATH or mount:/DIR";
    return false;
  }
  *out = std::move(sel);
  return true;
}

fsic_status selector_id(const selector &sel, volume_id_ptr *out) {
  fs_volume_id *id = nullptr;
  fsic_status status = FSIC_ERR_FAILED;
  switch (sel.kind) {
    case selector_kind::part:
      status = fs_partition_id_create(sel.first.c_str(), sel.number, &id);
      break;
    case selector_kind::image:
      status = fs_image_partition_id_create(sel.first.c_str(), sel.number, &id);
      break;
    case selector_kind::lvm:
      status = fs_lvm_volume_id_create(sel.first.c_str(), sel.second.c_str(), &id);
      break;
    case selector_kind::uuid:
      status = fs_uuid_volume_id_create(sel.first.c_str(), &id);
      break;
    case selector_kind::dev:
    case selector_kind::mount:
      break;
  }
  if (status == FSIC_OK)
    out->reset(id);
  return status;
}

fsic_status find_selected_volume(fs_disk_list *list, const selector &sel, fs_volume **out) {
  switch (sel.kind) {
    case selector_kind::dev:
      *out = fs_disk_list_volume_by_devnode(list, sel.first.c_str());
      return FSIC_OK;
    case selector_kind::mount:
      *out = fs_disk_list_volume_by_mount(list, sel.first.c_str());
      return FSIC_OK;
    case selector_kind::uuid:
      // Any volume with that file system, whether or not its disk has a serial.
      *out = fs_disk_list_volume_by_uuid(list, sel.first.c_str());
      return FSIC_OK;
    default:
      break;
  }
  volume_id_ptr id;
  fsic_status status = selector_id(sel, &id);
  if (status != FSIC_OK)
    return status;
  *out = fs_disk_list_find_volume(list, id.get());
  return FSIC_OK;
}

} // namespace fsic::cli
