// Parsing of /proc/self/mountinfo lines.
#include "fs/mountinfo.h"

#include <cstring>

namespace fsic::detail {

namespace {

// Undoes the octal escapes of a mountinfo field (\040 for a blank) in place.
void unescape_field(char *s) noexcept {
  char *out = s;
  for (const char *in = s; *in; out++) {
    if (in[0] == '\\' && in[1] >= '0' && in[1] <= '3' && in[2] >= '0' && in[2] <= '7' &&
        in[3] >= '0' && in[3] <= '7') {
      *out = static_cast<char>((in[1] - '0') * 64 + (in[2] - '0') * 8 + (in[3] - '0'));
      in += 4;
    } else {
      *out = *in++;
    }
  }
  *out = '\0';
}

} // namespace

// "id parent major:minor root mount-point options [optional fields] - type source
// super-options": the mount point is the fifth field, the source the second after the
// lone "-".
bool parse_mountinfo_line(char *line, mount_entry_view *out) noexcept {
  line[strcspn(line, "\n")] = '\0';
  char *save = nullptr;
  char *mount_point = nullptr;
  char *field = strtok_r(line, " ", &save);
  for (int i = 1; field; i++, field = strtok_r(nullptr, " ", &save)) {
    if (i == 5)
      mount_point = field;
    if (i > 6 && strcmp(field, "-") == 0)
      break;
  }
  if (!mount_point || !field || !strtok_r(nullptr, " ", &save))
    return false;
  char *source = strtok_r(nullptr, " ", &save);
  if (!source)
    return false;
  unescape_field(mount_point);
  unescape_field(source);
  out->mount_point = mount_point;
  out->source = source;
  return true;
}

} // namespace fsic::detail
