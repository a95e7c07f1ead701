// Parsing of /proc/self/mountinfo lines.
#include "fs/mountinfo.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/sysmacros.h>

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

// "major:minor" as a device number; false when it is not that.
bool parse_dev(const char *s, dev_t *dev) noexcept {
  char *end;
  const unsigned long long major_number = strtoull(s, &end, 10);
  if (end == s || *end != ':')
    return false;
  const char *minor_text = end + 1;
  const unsigned long long minor_number = strtoull(minor_text, &end, 10);
  if (end == minor_text || *end || major_number > UINT32_MAX || minor_number > UINT32_MAX)
    return false;
  *dev = makedev(major_number, minor_number);
  return true;
}

} // namespace

// "id parent major:minor root mount-point options [optional fields] - type source
// super-options": the source is the second field after the lone "-".
bool parse_mountinfo_line(char *line, mount_entry_view *out) noexcept {
  line[strcspn(line, "\n")] = '\0';
  char *save = nullptr;
  char *fields[5] = {};
  char *field = strtok_r(line, " ", &save);
  for (int i = 1; field; i++, field = strtok_r(nullptr, " ", &save)) {
    if (i <= 5)
      fields[i - 1] = field;
    if (i > 6 && strcmp(field, "-") == 0)
      break;
  }
  char *fs_type = field ? strtok_r(nullptr, " ", &save) : nullptr;
  if (!fields[4] || !fs_type)
    return false;
  char *source = strtok_r(nullptr, " ", &save);
  char *end;
  const long long id = strtoll(fields[0], &end, 10);
  if (!source || *end || id < 0 || id > INT32_MAX || !parse_dev(fields[2], &out->dev))
    return false;
  unescape_field(fields[3]);
  unescape_field(fields[4]);
  unescape_field(fs_type);
  unescape_field(source);
  out->id = static_cast<int>(id);
  out->root = fields[3];
  out->mount_point = fields[4];
  out->fs_type = fs_type;
  out->source = source;
  return true;
}

} // namespace fsic::detail
