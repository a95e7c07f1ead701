// Logging internals shared by log_config.cpp, log_format.cpp and the unit tests.
//
// log_config.cpp owns the class names, the enabled-class masks, the table of
// per-channel options and the loading of LOG_LEVEL and the LOG_CONFIG file;
// log_format.cpp owns the current format description and the record writer.
#ifndef FSIC_UTIL_LOG_INTERNAL_H
#define FSIC_UTIL_LOG_INTERNAL_H

#include <stdio.h>

#include <fsic/log.h>

namespace fsic::detail {

#define LOG_N_CLASSES 6      // FATAL .. TRACE
#define LOG_MAX_OPTIONS 256  // capacity of the options table
#define LOG_NAME_SIZE 32     // channel and entry names, NUL included
#define LOG_FORMAT_ITEMS 32  // item codes of a format description
#define LOG_FORMAT_TEXT 256  // literal bytes of a format description, NULs included
#define LOG_STRING_SIZE 256  // buffer of a quoted configuration value, NUL included
#define LOG_RECORD_SIZE 1024 // bytes of one output record

// Class names; the class number is the index.
extern const char *const log_classes[LOG_N_CLASSES];

// Settings of one channel from the configuration file: the same fields as a channel.
typedef struct log_options {
  char name[LOG_NAME_SIZE];
  uint32_t flags;
} log_options;

// A compiled format string. Items are used up to the first 0 or the end of the
// array: 1..10 are placeholders, (start << 6) | 0x3F is the NUL-terminated literal
// run at text[start], 11..62 produce nothing.
typedef struct format_desc {
  uint16_t items[LOG_FORMAT_ITEMS];
  char text[LOG_FORMAT_TEXT];
} format_desc;

// Receives each finished record; the result is what ic_log_write() returns.
typedef int (*log_writer_fn)(const void *data, unsigned len);

// --- log_config.cpp ---

// The channel's mask, first re-resolved (from its options entry, else from the default
// mask) whenever any of the five low bits of the cached word is set.
uint32_t get_channel_flags(ic_log_channel *channel) noexcept;

// Loads the configuration on the first call; then the entry named like the channel,
// or null.
log_options *get_channel_options(const ic_log_channel *channel) noexcept;

// The entry of that name, added in sorted place with the current default mask when
// missing; null when the table is full or the name does not fit.
log_options *add_channel_options(const char *name) noexcept;

// A class name (any case) or a strtol base-0 number, blanks around it allowed;
// -1 when it is neither.
int32_t value_to_level(const char *value) noexcept;

// A double- or single-quoted string into out (size bytes, NUL included); 0, or -1
// when the quoting is wrong, the text does not fit or anything but blanks follows.
int value_to_string(const char *value, char *out, size_t size) noexcept;

// Applies the configuration lines read from file (the LOG_CONFIG file when loading).
void load_config_from_stream(FILE *file) noexcept;

// --- log_format.cpp ---

// Compiles a format string; 0, or -1 when items or text overflow (out is then
// partly filled).
int format_to_desc(const char *format, format_desc *out) noexcept;

// The current format description, which the configuration may replace.
format_desc *get_format(void) noexcept;

// --- Debug records of failed calls ---

// Logs on channel "fs", class DEBUG (off by default), that `call` failed, with
// strerror(errno); errno is left as it was. `source` names the source file.
void log_failed_call(const char *source, const char *func, int line, const char *call) noexcept;

// Copies `text` into `out` (`cap` bytes, NUL included) with every control character and
// backslash written as \xNN, so that text taken from a volume (a file name) stays on one
// line of a record and cannot pass for one of its own. Text that does not fit is cut
// between characters, never inside an escape. Returns the length written.
size_t escape_controls(const char *text, char *out, size_t cap) noexcept;

} // namespace fsic::detail

// A DEBUG record that `call` (a text naming the failed call) failed here; the source
// file defines kLogSource.
#define FSIC_LOG_FAILED(call) ::fsic::detail::log_failed_call(kLogSource, __func__, __LINE__, call)

FSIC_BEGIN_DECLS

// --- Test hooks ---

// Back to the state of a new process: default mask 3, no entries, configuration not
// loaded, the library's channels unresolved, the default format and writer.
void _ic_log_reset(void) noexcept;

// The default format and writer again (called by _ic_log_reset()).
void _ic_log_reset_output(void) noexcept;

// Installs a writer (the default one, write() to descriptor 2, when fn is null) and
// returns the previous one.
fsic::detail::log_writer_fn _ic_log_set_writer(fsic::detail::log_writer_fn fn) noexcept;

// The options table and its number of entries.
const fsic::detail::log_options *_ic_log_options(unsigned *count) noexcept;

FSIC_END_DECLS

#endif // FSIC_UTIL_LOG_INTERNAL_H
