// A small JSON writer: the caller writes the structure, this escapes strings and puts
// the commas. Bytes that are not UTF-8 (file names may hold any) are written as
// \udcXX, the lone low surrogate that stands for byte XX, so no name is lost.
#ifndef FSIC_CLI_JSON_H
#define FSIC_CLI_JSON_H

#include <cstdint>
#include <string>
#include <string_view>

namespace fsic::cli {

class json_writer {
public:
  explicit json_writer(std::string *out) : out_(out) {}
  void begin_object();
  void end_object();
  void begin_array();
  void end_array();
  void key(std::string_view name); // inside an object, before each value
  void string(std::string_view value);
  void null();
  void boolean(bool value);
  void number(uint64_t value);
  void number(double value, int decimals);
  void raw(std::string_view text); // a value already in JSON form

private:
  void separate();
  std::string *out_;
  bool first_ = true; // no value yet in the innermost object or array
  bool after_key_ = false;
};

// `text` as a JSON string literal, quotes included.
std::string json_quote(std::string_view text);

} // namespace fsic::cli

#endif // FSIC_CLI_JSON_H
