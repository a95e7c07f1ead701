// The policy parser: lines to tokens, tokens to images, sections and objects.
#include "cli/policy.h"

#include <fsic/ocl.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <map>

#include "cli/file_io.h"

namespace fsic::cli {

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

// Splits one line into tokens. false with the reason on an unterminated quote or an
// unknown escape.
bool tokenize(std::string_view line, std::vector<std::string> *tokens, std::string *why) {
  size_t i = 0;
  while (true) {
    while (i < line.size() && is_blank(line[i]))
      i++;
    if (i == line.size() || line[i] == '#')
      return true;
    std::string token;
    bool quoted = false;
    for (; i < line.size() && (quoted || !is_blank(line[i])); i++) {
      char c = line[i];
      if (c == '"') {
        quoted = !quoted;
      } else if (c == '\\' && quoted) {
        if (i + 1 == line.size() || (line[i + 1] != '"' && line[i + 1] != '\\')) {
          *why = "only \\\" and \\\\ are escapes inside double quotes";
          return false;
        }
        token += line[++i];
      } else {
        token += c;
      }
    }
    if (quoted) {
      *why = "a double quote is not closed";
      return false;
    }
    tokens->push_back(std::move(token));
  }
}

// Object and image paths: absolute, without "." or ".." components.
bool check_path(const std::string &path, std::string *why) {
  if (path.empty() || path[0] != '/') {
    *why = "the path \"" + path + "\" is not absolute";
    return false;
  }
  size_t start = 1;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos)
      end = path.size();
    std::string_view part(path.data() + start, end - start);
    if (part == "." || part == "..") {
      *why = "the path \"" + path + "\" has a \".\" or \"..\" component";
      return false;
    }
    start = end + 1;
  }
  return true;
}

bool parse_flags_number(std::string_view text, uint32_t *out) {
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text.remove_prefix(2);
  }
  if (text.empty())
    return false;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *out, base);
  return error == std::errc() && end == text.data() + text.size();
}

// The words after an object's path.
bool parse_words(const std::vector<std::string> &tokens, policy_object *obj, std::string *why) {
  for (size_t i = 2; i < tokens.size(); i++) {
    const std::string &word = tokens[i];
    if (word == "each-file" || word == "recursive") {
      if (!obj->dir) {
        *why = "\"" + word + "\" applies to directories only";
        return false;
      }
      obj->flags |= word == "each-file" ? EACH_FILE : RECURSIVE;
    } else if (word == "data") {
      obj->flags |= CONTROL_DATA;
    } else if (word == "attrs") {
      obj->flags |= CONTROL_ATTRS;
    } else if (word.rfind("flags=", 0) == 0) {
      uint32_t number = 0;
      if (!parse_flags_number(std::string_view(word).substr(6), &number)) {
        *why = "\"" + word + "\" is not flags=NUMBER";
        return false;
      }
      obj->flags |= number;
    } else if (word.rfind("mask=", 0) == 0) {
      if (!obj->dir) {
        *why = "masks apply to directories only";
        return false;
      }
      if (word.size() == 5) {
        *why = "an empty mask";
        return false;
      }
      obj->masks.push_back(word.substr(5));
    } else {
      *why = "unknown word \"" + word +
             "\" (each-file, recursive, data, attrs, flags=N, mask=PATTERN)";
      return false;
    }
  }
  return true;
}

struct parser {
  policy result;
  std::map<std::string, int> image_lines;   // name -> line
  std::map<std::string, int> section_paths; // paths of the current section -> line
  std::string why;

  bool header(int line, const std::vector<std::string> &tokens) {
    const std::string &token = tokens[0];
    std::string text = token.substr(1, token.size() - 2);
    policy_section section;
    section.line = line;
    if (tokens.size() > 2 || (tokens.size() == 2 && tokens[1] != "optional")) {
      why = "a volume line is [VOLUME] alone, or [VOLUME] optional";
      return false;
    }
    section.optional = tokens.size() == 2;
    if (!parse_selector(text, &section.volume, &why)) {
      why = "\"" + text + "\": " + why;
      return false;
    }
    section.volume_text = text;
    result.sections.push_back(std::move(section));
    section_paths.clear();
    return true;
  }

  bool image(int line, const std::vector<std::string> &tokens) {
    if (tokens.size() != 4) {
      why = "expected: image NAME VOLUME PATH";
      return false;
    }
    policy_image img;
    img.line = line;
    img.name = tokens[1];
    if (img.name.empty()) {
      why = "an empty image name";
      return false;
    }
    auto [it, fresh] = image_lines.emplace(img.name, line);
    if (!fresh) {
      why = "image \"" + img.name + "\" is already defined on line " + std::to_string(it->second);
      return false;
    }
    if (!parse_selector(tokens[2], &img.volume, &why)) {
      why = "\"" + tokens[2] + "\": " + why;
      return false;
    }
    img.volume_text = tokens[2];
    img.path = tokens[3];
    if (!check_path(img.path, &why))
      return false;
    result.images.push_back(std::move(img));
    return true;
  }

  bool object(int line, const std::vector<std::string> &tokens) {
    if (result.sections.empty()) {
      why = "\"" + tokens[0] + "\" before the first [VOLUME] line";
      return false;
    }
    if (tokens.size() < 2) {
      why = "expected: " + tokens[0] + " PATH [WORD...]";
      return false;
    }
    policy_object obj;
    obj.line = line;
    obj.dir = tokens[0] == "dir";
    obj.path = tokens[1];
    if (!check_path(obj.path, &why) || !parse_words(tokens, &obj, &why))
      return false;
    auto [it, fresh] = section_paths.emplace(obj.path, line);
    if (!fresh) {
      why = "\"" + obj.path + "\" is already listed on line " + std::to_string(it->second);
      return false;
    }
    result.sections.back().objects.push_back(std::move(obj));
    return true;
  }

  bool line(int number, std::string_view text) {
    std::vector<std::string> tokens;
    if (!tokenize(text, &tokens, &why))
      return false;
    if (tokens.empty())
      return true;
    const std::string &first = tokens[0];
    if (first.front() == '[') {
      if (first.size() >= 2 && first.back() == ']')
        return header(number, tokens);
      why = "a volume line is [VOLUME] alone, or [VOLUME] optional";
      return false;
    }
    if (first == "image")
      return image(number, tokens);
    if (first == "file" || first == "dir")
      return object(number, tokens);
    why = "unknown keyword \"" + first + "\" (image, file, dir or [VOLUME])";
    return false;
  }
};

} // namespace

bool parse_policy(std::string_view text, policy *out, int *error_line, std::string *error) {
  parser p;
  int number = 0;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos)
      end = text.size();
    number++;
    std::string_view line = text.substr(start, end - start);
    if (line.find('\0') != std::string_view::npos) {
      p.why = "a NUL byte";
    } else if (p.line(number, line)) {
      start = end + 1;
      continue;
    }
    *error_line = number;
    *error = p.why;
    return false;
  }
  *out = std::move(p.result);
  return true;
}

bool read_policy(const std::string &path, policy *out, std::string *message) {
  std::string text;
  int error = read_whole_file(path, &text);
  if (error != 0) {
    *message = path + ": " + std::strerror(error);
    return false;
  }
  int line = 0;
  std::string why;
  if (!parse_policy(text, out, &line, &why)) {
    *message = path + ":" + std::to_string(line) + ": " + why;
    return false;
  }
  return true;
}

} // namespace fsic::cli
