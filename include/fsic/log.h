/*
 * Logging.
 *
 * A record belongs to a channel (a named source such as "fs") and has a class
 * (IC_LOG_FATAL .. IC_LOG_TRACE). A channel's `flags` word caches its enabled-class
 * mask; it starts as all ones ("not resolved yet"). Call sites test the class bit on
 * the cached word before calling ic_log(), which resolves the channel and tests again:
 *
 *   if (IC_LOG_ENABLED(&__ic_log_fs, IC_LOG_ERROR))
 *     ic_log(&__ic_log_fs, IC_LOG_ERROR, "mount", __func__, __LINE__, "ret = %d\n", r);
 *
 * Configuration, loaded once per process on the first resolution of any channel:
 * the environment variable LOG_LEVEL (a class name or a number) sets the default
 * level; LOG_CONFIG names a file with "[channel]" sections and the keys "level" and
 * "format" (read only when it is a regular file, and at most its first 1 MiB; anything
 * else counts as a file that cannot be opened). Records go to standard error, laid out
 * by the current format (default
 * "%{timestamp} [%{channel}] %{class}: %{source} %{message}").
 */
#ifndef FSIC_LOG_H
#define FSIC_LOG_H

#include <fsic/defs.h>

FSIC_BEGIN_DECLS

enum {
  IC_LOG_FATAL = 0,
  IC_LOG_ERROR = 1,
  IC_LOG_WARN = 2,
  IC_LOG_INFO = 3,
  IC_LOG_DEBUG = 4,
  IC_LOG_TRACE = 5
};

typedef struct ic_log_channel {
  char name[32];  /* NUL-terminated channel name */
  uint32_t flags; /* cached enabled-class mask; all ones until resolved */
} ic_log_channel;

/* Defines a channel object; its mask resolves on first use. */
#define IC_LOG_CHANNEL_INIT(channel_name) \
  { channel_name, 0xFFFFFFFFu }

/* The call-site pre-test on the cached mask. */
#define IC_LOG_ENABLED(channel, cls) (((channel)->flags >> (cls)) & 1u)

/* The library's channels: "fs" and "fs_ocl". */
FSIC_API extern ic_log_channel __ic_log_fs;
FSIC_API extern ic_log_channel __ic_log_fs_ocl;

/* Sets the mask for channels without an entry of their own to the mask of `level`
 * and returns it. Does not load the configuration. */
FSIC_API uint32_t ic_log_set_default_level(int32_t level) FSIC_NOEXCEPT;

/* Writes one record when the channel enables `cls`; the message is the vsnprintf of
 * `format` and its arguments and brings its own "\n". */
FSIC_API void ic_log(ic_log_channel *channel, int cls, const char *file, const char *function,
                     int line, const char *format, ...) FSIC_NOEXCEPT
    __attribute__((format(printf, 6, 7)));

/* As ic_log() with `data_len` raw bytes as the message. Returns 0 when the class is not
 * enabled, else the writer's result (-1 when write() failed). */
FSIC_API int ic_log_write(ic_log_channel *channel, int cls, const char *file, const char *function,
                          int line, const void *data, unsigned data_len) FSIC_NOEXCEPT;

FSIC_END_DECLS

#endif /* FSIC_LOG_H */
