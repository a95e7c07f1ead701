// Log configuration: class names, enabled-class masks, the sorted table of per-channel
// options, and the one-time loading of LOG_LEVEL and the LOG_CONFIG file.
//
// Nothing here reports errors: a bad value, a malformed line or a missing file is
// ignored and every setting stays as it was. The LOG_CONFIG file is read only when it is
// a regular file, and only its first 1 MiB.
#include "util/log_internal.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace fsic::detail;

namespace fsic::detail {

const char *const log_classes[LOG_N_CLASSES] = {"FATAL", "ERROR", "WARN", "INFO", "DEBUG", "TRACE"};

} // namespace fsic::detail

extern "C" {
ic_log_channel __ic_log_fs = IC_LOG_CHANNEL_INIT("fs");
ic_log_channel __ic_log_fs_ocl = IC_LOG_CHANNEL_INIT("fs_ocl");
}

namespace fsic::detail {

namespace {

uint32_t default_flags = 3;           // FATAL and ERROR
log_options options[LOG_MAX_OPTIONS]; // sorted by name (strcmp)
unsigned n_options;
int config_loaded;

// A level enables classes 0..level; the shift count wraps, so 30 gives 0x7FFFFFFF
// and 31 gives 0.
uint32_t level_to_mask(int32_t level) noexcept {
  return (1u << (((uint32_t)level + 1u) & 31u)) - 1u;
}

// Masks read from the environment or the file never set bit 31, the "unresolved" bit.
uint32_t configured_mask(int32_t level) noexcept { return level_to_mask(level) & 0x7FFFFFFFu; }

} // namespace

} // namespace fsic::detail

extern "C" uint32_t ic_log_set_default_level(int32_t level) noexcept {
  default_flags = level_to_mask(level);
  return default_flags;
}

namespace fsic::detail {

// --- Lexical helpers; blanks are space and tab, names are ASCII only. ---

namespace {

bool is_blank(char c) noexcept { return c == ' ' || c == '\t'; }

bool is_letter(char c) noexcept { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

bool is_digit(char c) noexcept { return c >= '0' && c <= '9'; }

const char *skip_blanks(const char *p) noexcept {
  while (is_blank(*p))
    ++p;
  return p;
}

// A name is a letter, then letters and digits; returns its end, or null.
const char *scan_name(const char *p) noexcept {
  if (!is_letter(*p))
    return nullptr;
  do
    ++p;
  while (is_letter(*p) || is_digit(*p));
  return p;
}

char to_upper(char c) noexcept { return c >= 'a' && c <= 'z' ? (char)(c - 32) : c; }

// The n characters at s equal the whole of word, ignoring ASCII case.
bool is_word_nocase(const char *s, size_t n, const char *word) noexcept {
  if (strlen(word) != n)
    return false;
  for (size_t i = 0; i < n; ++i)
    if (to_upper(s[i]) != to_upper(word[i]))
      return false;
  return true;
}

} // namespace

// --- Value parsers ---

namespace {

// strtol base 0 over [start, end) exactly; saturates to 32 bits like a 32-bit long.
int32_t number_to_level(const char *start, const char *end) noexcept {
  char *stop;
  long n = strtol(start, &stop, 0);
  if (stop != end)
    return -1;
  if (n > INT32_MAX)
    return INT32_MAX;
  if (n < INT32_MIN)
    return INT32_MIN;
  return (int32_t)n;
}

} // namespace

int32_t value_to_level(const char *value) noexcept {
  const char *start = skip_blanks(value);
  const char *end = start + strlen(start);
  while (end > start && is_blank(end[-1]))
    --end;
  if (end == start)
    return -1;
  for (int32_t cls = 0; cls < LOG_N_CLASSES; ++cls)
    if (is_word_nocase(start, (size_t)(end - start), log_classes[cls]))
      return cls;
  return number_to_level(start, end);
}

int value_to_string(const char *value, char *out, size_t size) noexcept {
  const char *p = skip_blanks(value);
  const char quote = *p;
  if ((quote != '"' && quote != '\'') || size == 0)
    return -1;
  size_t n = 0;
  for (++p; *p != quote; ++p) {
    if (*p == '\0' || n + 1 >= size)
      return -1;
    // Only inside double quotes, \\ and \" stand for the second character.
    if (quote == '"' && *p == '\\' && (p[1] == '\\' || p[1] == '"'))
      ++p;
    out[n++] = *p;
  }
  if (*skip_blanks(p + 1) != '\0')
    return -1;
  out[n] = '\0';
  return 0;
}

// --- The options table ---

log_options *add_channel_options(const char *name) noexcept {
  if (strlen(name) >= LOG_NAME_SIZE)
    return nullptr;
  unsigned i = 0;
  while (i < n_options && strcmp(options[i].name, name) < 0)
    ++i;
  if (i < n_options && strcmp(options[i].name, name) == 0)
    return &options[i];
  if (n_options == LOG_MAX_OPTIONS)
    return nullptr;
  memmove(&options[i + 1], &options[i], (n_options - i) * sizeof options[0]);
  strcpy(options[i].name, name);
  options[i].flags = default_flags;
  ++n_options;
  return &options[i];
}

namespace {

int compare_entry(const void *name, const void *entry) noexcept {
  return strcmp((const char *)name, ((const log_options *)entry)->name);
}

void load_config(void) noexcept;

} // namespace

log_options *get_channel_options(const ic_log_channel *channel) noexcept {
  if (!config_loaded) {
    load_config();
    config_loaded = 1;
  }
  return (log_options *)bsearch(channel->name, options, n_options, sizeof options[0],
                                compare_entry);
}

uint32_t get_channel_flags(ic_log_channel *channel) noexcept {
  // Deliberately the five low bits, not bit 31: the unresolved word passes, and a
  // mask enabling any of FATAL..DEBUG follows later changes of the default.
  if (channel->flags & 0x1Fu) {
    const log_options *entry = get_channel_options(channel);
    channel->flags = entry ? entry->flags : default_flags;
  }
  return channel->flags;
}

// --- The configuration file ---

typedef struct config_state {
  log_options *entry; // current section's entry; null before the first or when unusable
  bool skip;          // key lines are ignored (unusable section)
} config_state;

namespace {

// The entry for a header's name; null when the name is too long or the table full.
log_options *section_entry(const char *name, size_t len) noexcept {
  char buf[LOG_NAME_SIZE];
  if (len >= sizeof buf)
    return nullptr;
  memcpy(buf, name, len);
  buf[len] = '\0';
  return add_channel_options(buf);
}

// "[" blanks name blanks "]" blanks end; p is just after the "[". A malformed header
// changes nothing.
void read_section_header(config_state *st, const char *p) noexcept {
  const char *name = skip_blanks(p);
  const char *end = scan_name(name);
  if (!end)
    return;
  const char *close = skip_blanks(end);
  if (*close != ']' || *skip_blanks(close + 1) != '\0')
    return;
  st->entry = section_entry(name, (size_t)(end - name));
  st->skip = st->entry == nullptr;
}

void set_level(const config_state *st, const char *value) noexcept {
  const int32_t level = value_to_level(value);
  if (level == -1)
    return;
  if (st->entry)
    st->entry->flags = configured_mask(level);
  else
    default_flags = configured_mask(level);
}

// The format is global, whatever section the line is in.
void set_format(const char *value) noexcept {
  char text[LOG_STRING_SIZE];
  format_desc desc;
  if (value_to_string(value, text, sizeof text) != 0)
    return;
  if (format_to_desc(text, &desc) != 0)
    return;
  *get_format() = desc;
}

// name blanks "=" value; keys are case-sensitive, unknown ones ignored.
void read_key_line(const config_state *st, const char *p) noexcept {
  const char *end = scan_name(p);
  if (!end)
    return;
  const char *eq = skip_blanks(end);
  if (*eq != '=')
    return;
  const size_t len = (size_t)(end - p);
  if (len == 5 && memcmp(p, "level", 5) == 0)
    set_level(st, eq + 1);
  else if (len == 6 && memcmp(p, "format", 6) == 0)
    set_format(eq + 1);
}

void read_line(config_state *st, char *line) noexcept {
  size_t n = strlen(line);
  while (n > 0 && line[n - 1] == '\n')
    line[--n] = '\0'; // a "\r" stays
  const char *p = skip_blanks(line);
  if (*p == '\0' || *p == '#')
    return;
  if (*p == '[')
    read_section_header(st, p + 1);
  else if (!st->skip)
    read_key_line(st, p);
}

} // namespace

void load_config_from_stream(FILE *file) noexcept {
  config_state st = {nullptr, false};
  char line[255]; // at most 254 characters per read: longer lines come in pieces
  while (fgets(line, sizeof line, file))
    read_line(&st, line);
}

namespace {

void set_level_from_env(void) noexcept {
  const char *value = getenv("LOG_LEVEL");
  if (!value)
    return;
  const int32_t level = value_to_level(value);
  if (level != -1)
    default_flags = configured_mask(level);
}

// At most this much of the LOG_CONFIG file is read; a line cut there ends the file.
constexpr size_t config_size_limit = 1u << 20;

// A descriptor read through a stream, up to a number of bytes.
struct limited_input {
  int fd;
  size_t left;
};

ssize_t read_limited(void *cookie, char *buf, size_t size) noexcept {
  auto *in = static_cast<limited_input *>(cookie);
  if (size > in->left)
    size = in->left;
  if (size == 0)
    return 0;
  ssize_t n;
  do
    n = read(in->fd, buf, size);
  while (n < 0 && errno == EINTR);
  if (n > 0)
    in->left -= (size_t)n;
  return n;
}

// Only a regular file is read: anything else (a FIFO or terminal that would block, a
// device without end such as /dev/zero, a directory) counts as a file that cannot be
// opened. The descriptor is opened without blocking, so that a FIFO without a writer
// is seen for what it is instead of waited for.
void load_config_from_file(void) noexcept {
  const char *path = getenv("LOG_CONFIG");
  if (!path)
    return;
  const int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0)
    return;
  struct stat st;
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
    limited_input in = {fd, config_size_limit};
    cookie_io_functions_t io = {read_limited, nullptr, nullptr, nullptr};
    FILE *file = fopencookie(&in, "r", io);
    if (file) {
      load_config_from_stream(file);
      fclose(file);
    }
  }
  close(fd);
}

void load_config(void) noexcept {
  set_level_from_env();
  load_config_from_file();
}

} // namespace

// --- Test hooks ---

} // namespace fsic::detail

extern "C" void _ic_log_reset(void) noexcept {
  default_flags = 3;
  memset(options, 0, sizeof options);
  n_options = 0;
  config_loaded = 0;
  __ic_log_fs.flags = 0xFFFFFFFFu;
  __ic_log_fs_ocl.flags = 0xFFFFFFFFu;
  _ic_log_reset_output();
}

extern "C" const log_options *_ic_log_options(unsigned *count) noexcept {
  *count = n_options;
  return options;
}
