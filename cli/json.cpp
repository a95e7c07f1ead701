// The JSON writer and string escaping.
#include "cli/json.h"

#include <cstdio>

namespace fsic::cli {

namespace {

// The length of the UTF-8 sequence at s[i] (1 to 4), or 0 when it is not one: overlong
// forms, surrogates and values above U+10FFFF are not.
size_t utf8_length(std::string_view s, size_t i) {
  auto byte = [&](size_t k) { return static_cast<uint8_t>(s[k]); };
  uint8_t c = byte(i);
  size_t n;
  uint32_t cp;
  if (c < 0x80)
    return 1;
  if (c >= 0xc2 && c <= 0xdf) {
    n = 2;
    cp = c & 0x1f;
  } else if (c >= 0xe0 && c <= 0xef) {
    n = 3;
    cp = c & 0x0f;
  } else if (c >= 0xf0 && c <= 0xf4) {
    n = 4;
    cp = c & 0x07;
  } else {
    return 0;
  }
  if (s.size() - i < n)
    return 0;
  for (size_t k = 1; k < n; k++) {
    if ((byte(i + k) & 0xc0) != 0x80)
      return 0;
    cp = (cp << 6) | (byte(i + k) & 0x3f);
  }
  if ((n == 3 && cp < 0x800) || (n == 4 && (cp < 0x10000 || cp > 0x10ffff)) ||
      (cp >= 0xd800 && cp <= 0xdfff))
    return 0;
  return n;
}

} // namespace

std::string json_quote(std::string_view text) {
  std::string out = "\"";
  char esc[8];
  for (size_t i = 0; i < text.size();) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    size_t n = utf8_length(text, i);
    if (n == 0) {
      snprintf(esc, sizeof esc, "\\udc%02x", c);
      out += esc;
      i++;
      continue;
    }
    if (n > 1) {
      out.append(text.substr(i, n));
      i += n;
      continue;
    }
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        if (c < 0x20 || c == 0x7f) {
          snprintf(esc, sizeof esc, "\\u%04x", c);
          out += esc;
        } else {
          out += static_cast<char>(c);
        }
    }
    i++;
  }
  out += '"';
  return out;
}

void json_writer::separate() {
  if (after_key_) {
    after_key_ = false;
    return;
  }
  if (!first_)
    *out_ += ", ";
  first_ = false;
}

void json_writer::begin_object() {
  separate();
  *out_ += '{';
  first_ = true;
}

void json_writer::end_object() {
  *out_ += '}';
  first_ = false;
}

void json_writer::begin_array() {
  separate();
  *out_ += '[';
  first_ = true;
}

void json_writer::end_array() {
  *out_ += ']';
  first_ = false;
}

void json_writer::key(std::string_view name) {
  separate();
  *out_ += json_quote(name);
  *out_ += ": ";
  after_key_ = true;
}

void json_writer::string(std::string_view value) {
  separate();
  *out_ += json_quote(value);
}

void json_writer::null() {
  separate();
  *out_ += "null";
}

void json_writer::boolean(bool value) {
  separate();
  *out_ += value ? "true" : "false";
}

void json_writer::number(uint64_t value) {
  separate();
  *out_ += std::to_string(value);
}

void json_writer::number(double value, int decimals) {
  separate();
  char text[64];
  snprintf(text, sizeof text, "%.*f", decimals, value);
  *out_ += text;
}

void json_writer::raw(std::string_view text) {
  separate();
  out_->append(text);
}

} // namespace fsic::cli
