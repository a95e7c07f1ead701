// An independent model of the logging rules for the fuzz targets: compiling a format
// string, laying records out in the 1024-byte buffer, and applying a configuration
// file to the channel table, the default mask and the format. The targets compare the
// library with it and stop on the first difference.
#ifndef FSIC_FUZZ_LOG_MODEL_H
#define FSIC_FUZZ_LOG_MODEL_H

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <utility>
#include <vector>

#include "fuzz_check.h"
#include "util/log_internal.h"

namespace fuzz {

using namespace fsic::detail;

// ---------------------------------------------------------------- format strings

// "%" followed by one of these (first match wins) is placeholder index + 1.
inline const char *const kPlaceholders[] = {"{timestamp}", "{date}",   "{time}", "{channel}",
                                            "{class}",     "{source}", "{file}", "{function}",
                                            "{line}",      "{message}"};

// Compiles `fmt` as the format rules say: literal bytes gather in runs (each stored
// with a NUL and named by the item (start << 6) | 0x3F), placeholders close the
// pending run, "%%" is one "%", any other "%" is literal. At most 32 items and 256 text
// bytes; false when either overflows.
inline bool model_compile(const char *fmt, format_desc *out) {
  memset(out, 0, sizeof *out);
  size_t items = 0, text = 0, run = 0;
  auto put_text = [&](char c) {
    if (text == LOG_FORMAT_TEXT)
      return false;
    out->text[text++] = c;
    return true;
  };
  auto put_item = [&](unsigned code) {
    if (items == LOG_FORMAT_ITEMS)
      return false;
    out->items[items++] = static_cast<uint16_t>(code);
    return true;
  };
  auto close = [&]() {
    if (text == run)
      return true;
    const unsigned start = static_cast<unsigned>(run);
    if (!put_text('\0'))
      return false;
    run = text;
    return put_item((start << 6) | 0x3F);
  };
  for (const char *p = fmt; *p;) {
    if (*p != '%') {
      if (!put_text(*p++))
        return false;
      continue;
    }
    ++p;
    unsigned code = 0;
    size_t len = 0;
    for (unsigned i = 0; i < 10 && !code; i++) {
      len = strlen(kPlaceholders[i]);
      if (strncmp(p, kPlaceholders[i], len) == 0)
        code = i + 1;
    }
    if (code) {
      p += len;
      if (!close() || !put_item(code))
        return false;
    } else {
      if (*p == '%')
        ++p;
      if (!put_text('%'))
        return false;
    }
  }
  return close();
}

// ---------------------------------------------------------------- record layout

// One log call as the records under test make it.
struct Call {
  const char *channel;
  int cls;
  const char *file;
  const char *function;
  int line;
  std::string message;
  bool raw; // ic_log_write (bytes cut at the end) or ic_log "%s" (whole or dropped)
};

// The expected record: bytes, with the digits of times left open (kDigit), and where
// each time field was put.
constexpr int kDigit = -1;
struct Expected {
  std::vector<int> bytes;
  std::vector<std::pair<size_t, unsigned>> times; // offset and placeholder code 1..3
};

inline Expected model_record(const format_desc &d, const Call &c) {
  Expected e;
  size_t free = LOG_RECORD_SIZE;
  auto put = [&](const std::string &s) {
    for (size_t i = 0; i < s.size() && free > 0; i++, free--)
      e.bytes.push_back(static_cast<unsigned char>(s[i]));
  };
  // Printed with snprintf at the cursor: kept only when it fits whole with its NUL.
  auto put_whole = [&](const std::string &s, bool time_pattern, unsigned code) {
    if (s.empty() || s.size() >= free)
      return;
    if (time_pattern)
      e.times.emplace_back(e.bytes.size(), code);
    for (char ch : s)
      e.bytes.push_back(time_pattern && ch == 'D' ? kDigit : static_cast<unsigned char>(ch));
    free -= s.size();
  };
  const char *const classes[] = {"FATAL", "ERROR", "WARN", "INFO", "DEBUG", "TRACE"};
  for (unsigned i = 0; i < LOG_FORMAT_ITEMS && d.items[i] != 0; i++) {
    const unsigned code = d.items[i];
    switch (code) {
      case 1:
        put_whole("DDDD/DD/DD DD:DD:DD.DDD", true, code);
        break;
      case 2:
        put_whole("DDDD/DD/DD", true, code);
        break;
      case 3:
        put_whole("DD:DD:DD.DDD", true, code);
        break;
      case 4:
        put(std::string(c.channel, strnlen(c.channel, LOG_NAME_SIZE)));
        break;
      case 5:
        put(static_cast<unsigned>(c.cls) < 6 ? std::string(classes[c.cls]) : std::to_string(c.cls));
        break;
      case 6:
        put(c.file);
        put(":");
        put(c.function);
        put(":");
        put(std::to_string(c.line));
        break;
      case 7:
        put(c.file);
        break;
      case 8:
        break;
      case 9:
        put(std::to_string(c.line));
        break;
      case 10:
        if (c.raw)
          put(c.message);
        else
          put_whole(c.message, false, code);
        break;
      default:
        if (code >= 0x3F) {
          const unsigned start = code >> 6;
          if (start < LOG_FORMAT_TEXT)
            put(std::string(d.text + start, strnlen(d.text + start, LOG_FORMAT_TEXT - start)));
        }
        break;
    }
  }
  return e;
}

// Checks a written record against the expectation: the same length, the same bytes,
// digits where times go, and one time (date and clock fields in range) shared by every
// time placeholder of the record.
inline void check_record(const std::string &got, const Expected &want) {
  FUZZ_CHECK(got.size() <= LOG_RECORD_SIZE);
  FUZZ_CHECK(got.size() == want.bytes.size());
  for (size_t i = 0; i < got.size(); i++) {
    const unsigned char ch = static_cast<unsigned char>(got[i]);
    if (want.bytes[i] == kDigit)
      FUZZ_CHECK(ch >= '0' && ch <= '9');
    else
      FUZZ_CHECK(ch == want.bytes[i]);
  }
  // Fields: year, month, day, hour, minute, second, millisecond (-1 until seen).
  long fields[7] = {-1, -1, -1, -1, -1, -1, -1};
  auto num = [&](size_t at, size_t n) { return strtol(got.substr(at, n).c_str(), nullptr, 10); };
  auto agree = [&](int field, long value) {
    FUZZ_CHECK(fields[field] == -1 || fields[field] == value);
    fields[field] = value;
  };
  for (const auto &[at, code] : want.times) {
    size_t clock = at;
    if (code == 1 || code == 2) {
      agree(0, num(at, 4));
      agree(1, num(at + 5, 2));
      agree(2, num(at + 8, 2));
      clock = at + 11;
    }
    if (code == 1 || code == 3) {
      agree(3, num(clock, 2));
      agree(4, num(clock + 3, 2));
      agree(5, num(clock + 6, 2));
      agree(6, num(clock + 9, 3));
    }
  }
  FUZZ_CHECK(fields[1] == -1 || (fields[1] >= 1 && fields[1] <= 12));
  FUZZ_CHECK(fields[2] == -1 || (fields[2] >= 1 && fields[2] <= 31));
  FUZZ_CHECK(fields[3] <= 23 && fields[4] <= 59 && fields[5] <= 60);
}

// The records written through the capturing writer.
inline std::vector<std::string> &captured() {
  static std::vector<std::string> records;
  return records;
}

inline int capture_writer(const void *data, unsigned len) {
  captured().emplace_back(static_cast<const char *>(data), len);
  return static_cast<int>(len);
}

// Writes a set of records through the current format and checks each against the
// model laid out after `want` (which must equal the current format). Changes the
// default mask and the writer; the caller resets the logging state afterwards.
inline void check_records(const format_desc &want) {
  FUZZ_CHECK(memcmp(get_format(), &want, sizeof want) == 0);
  _ic_log_set_writer(capture_writer);
  ic_log_set_default_level(7); // classes 0..7 on channels without an entry

  // The channels' names hold a "_", which ends a name in the configuration, so no
  // section can give them an entry of their own: they follow the default mask.
  const std::string long_file(300, 'f');
  const std::string long_message(1000, 'm');
  const Call calls[] = {
      {"fuzz_rec", IC_LOG_ERROR, "scan_dir", "_fs_ocl_stat", 135, "loop path: '/x'\n", true},
      {"fuzz_channel_with_31_characters", 7, long_file.c_str(), "function", -42, long_message,
       true},
      {"fuzz_rec", IC_LOG_FATAL, "mount", "run_cmd", 7, long_message, false},
      {"fuzz_rec", IC_LOG_TRACE, "f", "g", 0, "ret = -1\n", false},
  };
  for (const Call &c : calls) {
    // A fresh channel each time: a resolved mask with no low bits would stay for good.
    ic_log_channel channel = IC_LOG_CHANNEL_INIT("");
    snprintf(channel.name, sizeof channel.name, "%s", c.channel);
    captured().clear();
    if (c.raw) {
      const int ret = ic_log_write(&channel, c.cls, c.file, c.function, c.line, c.message.data(),
                                   static_cast<unsigned>(c.message.size()));
      FUZZ_CHECK(captured().size() == 1);
      FUZZ_CHECK(ret == static_cast<int>(captured()[0].size()));
    } else {
      ic_log(&channel, c.cls, c.file, c.function, c.line, "%s", c.message.c_str());
      FUZZ_CHECK(captured().size() == 1);
    }
    check_record(captured()[0], model_record(want, c));
  }
  captured().clear();
}

// ---------------------------------------------------------------- configuration file

// The configuration's effect, modelled line by line from the file's rules.
class ConfigModel {
public:
  ConfigModel() { FUZZ_CHECK(model_compile(kDefault, &format_)); }

  // Applies the bytes as the stream loader reads them: pieces of at most 254 characters
  // ending after a "\n", each taken up to its first NUL.
  void apply(const uint8_t *data, size_t size) {
    size_t pos = 0;
    while (pos < size) {
      size_t n = 0;
      while (pos + n < size && n < 254) {
        if (data[pos + n++] == '\n')
          break;
      }
      std::string piece(reinterpret_cast<const char *>(data + pos), n);
      pos += n;
      line(piece.c_str());
    }
  }

  uint32_t default_flags() const { return default_; }
  const std::vector<std::pair<std::string, uint32_t>> &entries() const { return entries_; }
  const format_desc &format() const { return format_; }

  // The mask a channel of that name resolves to.
  uint32_t resolve(const char *name) const {
    for (const auto &[n, f] : entries_)
      if (n == name)
        return f;
    return default_;
  }

  static constexpr const char *kDefault =
      "%{timestamp} [%{channel}] %{class}: %{source} %{message}";

private:
  static bool blank(char c) { return c == ' ' || c == '\t'; }
  static bool letter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
  static bool digit(char c) { return c >= '0' && c <= '9'; }
  static std::string skip(const std::string &s) {
    size_t i = 0;
    while (i < s.size() && blank(s[i]))
      i++;
    return s.substr(i);
  }
  // A name at the start of s: its length, 0 when there is none.
  static size_t name_length(const std::string &s) {
    if (s.empty() || !letter(s[0]))
      return 0;
    size_t n = 1;
    while (n < s.size() && (letter(s[n]) || digit(s[n])))
      n++;
    return n;
  }

  static uint32_t mask(int32_t level) {
    return ((1u << ((static_cast<uint32_t>(level) + 1u) % 32u)) - 1u) & 0x7FFFFFFFu;
  }

  // A class name in any case, else a base-0 number spanning the whole trimmed value.
  static int32_t level(const std::string &value) {
    std::string v = skip(value);
    while (!v.empty() && blank(v.back()))
      v.pop_back();
    if (v.empty())
      return -1;
    const char *const classes[] = {"FATAL", "ERROR", "WARN", "INFO", "DEBUG", "TRACE"};
    for (int32_t cls = 0; cls < 6; cls++) {
      if (v.size() != strlen(classes[cls]))
        continue;
      bool same = true;
      for (size_t i = 0; i < v.size(); i++) {
        char ch = v[i];
        if (ch >= 'a' && ch <= 'z')
          ch = static_cast<char>(ch - 'a' + 'A');
        same = same && ch == classes[cls][i];
      }
      if (same)
        return cls;
    }
    char *end;
    const long n = strtol(v.c_str(), &end, 0);
    if (end != v.c_str() + v.size())
      return -1;
    if (n > INT32_MAX)
      return INT32_MAX;
    if (n < INT32_MIN)
      return INT32_MIN;
    return static_cast<int32_t>(n);
  }

  // A quoted value: false when the quoting is wrong, it is longer than 255 characters
  // or anything but blanks follows.
  static bool quoted(const std::string &value, std::string *out) {
    const std::string v = skip(value);
    if (v.empty() || (v[0] != '"' && v[0] != '\''))
      return false;
    const char q = v[0];
    out->clear();
    size_t i = 1;
    for (;; i++) {
      if (i >= v.size())
        return false;
      if (v[i] == q)
        break;
      char ch = v[i];
      if (q == '"' && ch == '\\' && i + 1 < v.size() && (v[i + 1] == '\\' || v[i + 1] == '"'))
        ch = v[++i];
      if (out->size() == 255)
        return false;
      out->push_back(ch);
    }
    return skip(v.substr(i + 1)).empty();
  }

  // The entry of the name, made in sorted place with the current default when missing;
  // -1 when the table is full.
  int entry_of(const std::string &name) {
    size_t i = 0;
    while (i < entries_.size() && strcmp(entries_[i].first.c_str(), name.c_str()) < 0)
      i++;
    if (i < entries_.size() && entries_[i].first == name)
      return static_cast<int>(i);
    if (entries_.size() == LOG_MAX_OPTIONS)
      return -1;
    entries_.insert(entries_.begin() + static_cast<long>(i), {name, default_});
    return static_cast<int>(i);
  }

  void line(const char *raw) {
    std::string s(raw);
    while (!s.empty() && s.back() == '\n')
      s.pop_back();
    s = skip(s);
    if (s.empty() || s[0] == '#')
      return;
    if (s[0] == '[') {
      const std::string rest = skip(s.substr(1));
      const size_t n = name_length(rest);
      if (!n)
        return;
      const std::string after = skip(rest.substr(n));
      if (after.empty() || after[0] != ']' || !skip(after.substr(1)).empty())
        return;
      current_ = n >= LOG_NAME_SIZE ? -1 : entry_of(rest.substr(0, n));
      skip_ = current_ < 0;
      return;
    }
    if (skip_)
      return;
    const size_t n = name_length(s);
    if (!n)
      return;
    const std::string after = skip(s.substr(n));
    if (after.empty() || after[0] != '=')
      return;
    const std::string key = s.substr(0, n), value = after.substr(1);
    if (key == "level") {
      const int32_t l = level(value);
      if (l == -1)
        return;
      if (current_ >= 0)
        entries_[static_cast<size_t>(current_)].second = mask(l);
      else
        default_ = mask(l);
    } else if (key == "format") {
      std::string text;
      format_desc d;
      if (quoted(value, &text) && model_compile(text.c_str(), &d))
        format_ = d;
    }
  }

  uint32_t default_ = 3;
  std::vector<std::pair<std::string, uint32_t>> entries_; // sorted by strcmp
  int current_ = -1;                                      // index of the section's entry
  bool skip_ = false;
  format_desc format_;
};

// Masks that a level can give: (1 << k) - 1 for k = 0..31, never bit 31.
inline bool is_level_mask(uint32_t m) { return m <= 0x7FFFFFFFu && (m & (m + 1)) == 0; }

} // namespace fuzz

#endif // FSIC_FUZZ_LOG_MODEL_H
