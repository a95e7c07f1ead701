// Log records: compiling format strings into format descriptions, laying one record
// out in a 1024-byte buffer after the current description, and handing it to the
// writer (write() to standard error).
#include "util/log_internal.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

using namespace fsic::detail;

namespace fsic::detail {

// Placeholder item codes; literal runs are TEXT_ITEM(start).
enum {
  ITEM_TIMESTAMP = 1,
  ITEM_DATE,
  ITEM_TIME,
  ITEM_CHANNEL,
  ITEM_CLASS,
  ITEM_SOURCE,
  ITEM_FILE,
  ITEM_FUNCTION, // deliberately no output: "{source}" carries the function name
  ITEM_LINE,
  ITEM_MESSAGE
};
#define TEXT_ITEM(start) ((uint16_t)(((start) << 6) | 0x3F))

namespace {

// The compiled "%{timestamp} [%{channel}] %{class}: %{source} %{message}".
constexpr format_desc initial_format = {{ITEM_TIMESTAMP, TEXT_ITEM(0), ITEM_CHANNEL, TEXT_ITEM(3),
                                         ITEM_CLASS, TEXT_ITEM(6), ITEM_SOURCE, TEXT_ITEM(9),
                                         ITEM_MESSAGE},
                                        " [\0] \0: \0 "};

format_desc default_format = initial_format;

int default_write_log(const void *data, unsigned len) noexcept { return (int)write(2, data, len); }

// The writer table: one slot.
log_writer_fn funcs[1] = {default_write_log};

} // namespace

format_desc *get_format(void) noexcept { return &default_format; }

// --- Compiling a format string ---

namespace {

// The placeholder that prefixes s (after its "%"): its code and length, or 0.
unsigned probe_format(const char *s, size_t *len) noexcept {
  // The item code is the index + 1; the first name that prefixes s wins.
  static const char *const names[] = {"{timestamp}", "{date}",   "{time}", "{channel}",
                                      "{class}",     "{source}", "{file}", "{function}",
                                      "{line}",      "{message}"};
  for (unsigned i = 0; i < sizeof names / sizeof names[0]; ++i) {
    *len = strlen(names[i]);
    if (strncmp(s, names[i], *len) == 0)
      return i + 1;
  }
  return 0;
}

} // namespace

typedef struct desc_builder {
  format_desc *desc;
  unsigned n_items;
  unsigned n_text;
  unsigned run_start; // first text byte of the pending literal run
} desc_builder;

namespace {

int add_item(desc_builder *b, uint16_t code) noexcept {
  if (b->n_items == LOG_FORMAT_ITEMS)
    return -1;
  b->desc->items[b->n_items++] = code;
  return 0;
}

int add_text(desc_builder *b, char c) noexcept {
  if (b->n_text == LOG_FORMAT_TEXT)
    return -1;
  b->desc->text[b->n_text++] = c;
  return 0;
}

// Ends the pending literal run, if any, with a NUL and an item pointing at it.
int close_run(desc_builder *b) noexcept {
  if (b->n_text == b->run_start)
    return 0;
  if (add_text(b, '\0') != 0)
    return -1;
  const uint16_t code = TEXT_ITEM(b->run_start);
  b->run_start = b->n_text;
  return add_item(b, code);
}

// Compiles what starts at *s (a character, or "%" and what follows) and steps past it.
// "%" before anything but a placeholder is literal; "%%" gives one "%".
int compile_next(desc_builder *b, const char **s) noexcept {
  const char *p = *s;
  if (*p != '%') {
    *s = p + 1;
    return add_text(b, *p);
  }
  size_t len;
  const unsigned code = probe_format(++p, &len);
  if (code == 0) {
    *s = *p == '%' ? p + 1 : p;
    return add_text(b, '%');
  }
  *s = p + len;
  if (close_run(b) != 0)
    return -1;
  return add_item(b, (uint16_t)code);
}

} // namespace

int format_to_desc(const char *format, format_desc *out) noexcept {
  desc_builder b = {out, 0, 0, 0};
  memset(out, 0, sizeof *out);
  while (*format)
    if (compile_next(&b, &format) != 0)
      return -1;
  return close_run(&b);
}

// --- Laying a record out ---

typedef struct log_time_info {
  int valid; // taken for this record
  struct tm tm;
  int msec;
} log_time_info;

typedef struct log_record {
  char *cur;     // write cursor
  unsigned free; // bytes left after the cursor
  log_time_info time;
  char buf[LOG_RECORD_SIZE];
} log_record;

typedef void (*message_fn)(log_record *rec, const void *arg);

// One log call: what the placeholders print.
typedef struct log_call {
  const ic_log_channel *channel;
  int cls;
  const char *file;
  const char *function;
  int line;
  message_fn message;
  const void *message_arg;
} log_call;

namespace {

// Bytes are copied while space remains; the rest is cut off.
void put_bytes(log_record *r, const char *s, size_t n) noexcept {
  for (; n > 0 && r->free > 0; --n, --r->free)
    *r->cur++ = *s++;
}

void put_string(log_record *r, const char *s) noexcept {
  if (s)
    put_bytes(r, s, strnlen(s, LOG_RECORD_SIZE));
}

void put_int(log_record *r, int v) noexcept {
  char tmp[16];
  snprintf(tmp, sizeof tmp, "%d", v);
  put_string(r, tmp);
}

// Keeps what snprintf printed at the cursor only when it fit whole, NUL included.
void keep_printed(log_record *r, int n) noexcept {
  if (n > 0 && (unsigned)n < r->free) {
    r->cur += n;
    r->free -= (unsigned)n;
  }
}

// The time of the record, taken at its first time placeholder.
const log_time_info *record_time(log_record *r) noexcept {
  if (!r->time.valid) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    const time_t sec = tv.tv_sec;
    localtime_r(&sec, &r->time.tm);
    r->time.msec = (int)(tv.tv_usec / 1000);
    r->time.valid = 1;
  }
  return &r->time;
}

void put_date(log_record *r) noexcept {
  const struct tm *tm = &record_time(r)->tm;
  keep_printed(r, snprintf(r->cur, r->free, "%04d/%02d/%02d", tm->tm_year + 1900, tm->tm_mon + 1,
                           tm->tm_mday));
}

void put_time(log_record *r) noexcept {
  const log_time_info *t = record_time(r);
  keep_printed(r, snprintf(r->cur, r->free, "%02d:%02d:%02d.%03d", t->tm.tm_hour, t->tm.tm_min,
                           t->tm.tm_sec, t->msec));
}

void put_timestamp(log_record *r) noexcept {
  const log_time_info *t = record_time(r);
  keep_printed(r, snprintf(r->cur, r->free, "%04d/%02d/%02d %02d:%02d:%02d.%03d",
                           t->tm.tm_year + 1900, t->tm.tm_mon + 1, t->tm.tm_mday, t->tm.tm_hour,
                           t->tm.tm_min, t->tm.tm_sec, t->msec));
}

void put_channel(log_record *r, const ic_log_channel *channel) noexcept {
  put_bytes(r, channel->name, strnlen(channel->name, LOG_NAME_SIZE));
}

void put_class(log_record *r, int cls) noexcept {
  if ((unsigned)cls < LOG_N_CLASSES)
    put_string(r, log_classes[cls]);
  else
    put_int(r, cls);
}

void put_source(log_record *r, const log_call *c) noexcept {
  put_string(r, c->file);
  put_bytes(r, ":", 1);
  put_string(r, c->function);
  put_bytes(r, ":", 1);
  put_int(r, c->line);
}

void put_literal(log_record *r, const format_desc *d, unsigned code) noexcept {
  const unsigned start = code >> 6;
  if (start < LOG_FORMAT_TEXT)
    put_bytes(r, d->text + start, strnlen(d->text + start, LOG_FORMAT_TEXT - start));
}

void put_item(log_record *r, const log_call *c, const format_desc *d, unsigned code) noexcept {
  switch (code) {
    case ITEM_TIMESTAMP:
      put_timestamp(r);
      break;
    case ITEM_DATE:
      put_date(r);
      break;
    case ITEM_TIME:
      put_time(r);
      break;
    case ITEM_CHANNEL:
      put_channel(r, c->channel);
      break;
    case ITEM_CLASS:
      put_class(r, c->cls);
      break;
    case ITEM_SOURCE:
      put_source(r, c);
      break;
    case ITEM_FILE:
      put_string(r, c->file);
      break;
    case ITEM_FUNCTION:
      break;
    case ITEM_LINE:
      put_int(r, c->line);
      break;
    case ITEM_MESSAGE:
      c->message(r, c->message_arg);
      break;
    default:
      if (code >= 0x3F)
        put_literal(r, d, code); // 11..62 print nothing
      break;
  }
}

// Lays the record out after the current format and returns the writer's result.
int write_record(const log_call *c) noexcept {
  log_record r;
  r.cur = r.buf;
  r.free = sizeof r.buf;
  r.time.valid = 0;
  const format_desc *d = &default_format;
  for (unsigned i = 0; i < LOG_FORMAT_ITEMS && d->items[i] != 0; ++i)
    put_item(&r, c, d, d->items[i]);
  return funcs[0](r.buf, (unsigned)(r.cur - r.buf));
}

} // namespace

// --- Entry points ---

namespace {

bool class_enabled(ic_log_channel *channel, int cls) noexcept {
  const uint32_t flags = get_channel_flags(channel);
  return (unsigned)cls < 32 && ((flags >> cls) & 1u);
}

} // namespace

typedef struct format_message {
  const char *format;
  va_list *args;
} format_message;

namespace {

// Printed whole or not at all; copies the arguments so that "%{message}" may repeat.
void put_format_message(log_record *r, const void *arg) noexcept {
  const format_message *m = (const format_message *)arg;
  va_list args;
  va_copy(args, *m->args);
  keep_printed(r, vsnprintf(r->cur, r->free, m->format, args));
  va_end(args);
}

} // namespace

typedef struct data_message {
  const char *data;
  unsigned len;
} data_message;

namespace {

void put_data_message(log_record *r, const void *arg) noexcept {
  const data_message *m = (const data_message *)arg;
  if (m->data)
    put_bytes(r, m->data, m->len);
}

} // namespace

} // namespace fsic::detail

extern "C" void ic_log(ic_log_channel *channel, int cls, const char *file, const char *function,
                       int line, const char *format, ...) noexcept {
  if (!class_enabled(channel, cls))
    return;
  va_list args;
  va_start(args, format);
  const format_message m = {format, &args};
  const log_call c = {channel, cls, file, function, line, put_format_message, &m};
  write_record(&c);
  va_end(args);
}

extern "C" int ic_log_write(ic_log_channel *channel, int cls, const char *file,
                            const char *function, int line, const void *data,
                            unsigned data_len) noexcept {
  if (!class_enabled(channel, cls))
    return 0;
  const data_message m = {(const char *)data, data_len};
  const log_call c = {channel, cls, file, function, line, put_data_message, &m};
  return write_record(&c);
}

namespace fsic::detail {

// --- Test hooks ---

} // namespace fsic::detail

extern "C" void _ic_log_reset_output(void) noexcept {
  default_format = initial_format;
  funcs[0] = default_write_log;
}

extern "C" log_writer_fn _ic_log_set_writer(log_writer_fn fn) noexcept {
  const log_writer_fn old = funcs[0];
  funcs[0] = fn ? fn : default_write_log;
  return old;
}

namespace fsic::detail {

void log_failed_call(const char *source, const char *func, int line, const char *call) noexcept {
  const int saved = errno;
  if (IC_LOG_ENABLED(&__ic_log_fs, IC_LOG_DEBUG))
    ic_log(&__ic_log_fs, IC_LOG_DEBUG, source, func, line, "%s failed: %s\n", call,
           strerror(saved));
  errno = saved;
}

size_t escape_controls(const char *text, char *out, size_t cap) noexcept {
  static const char digits[] = "0123456789abcdef";
  size_t n = 0;
  if (cap == 0)
    return 0;
  for (const unsigned char *p = (const unsigned char *)text; *p; ++p) {
    const bool plain = *p >= 0x20 && *p != 0x7f && *p != '\\';
    const size_t need = plain ? 1 : 4;
    if (n + need >= cap)
      break;
    if (plain) {
      out[n++] = (char)*p;
    } else {
      out[n++] = '\\';
      out[n++] = 'x';
      out[n++] = digits[*p >> 4];
      out[n++] = digits[*p & 15];
    }
  }
  out[n] = '\0';
  return n;
}

} // namespace fsic::detail
