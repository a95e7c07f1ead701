// Checks shared by the log tests: timestamps in records and byte-exact comparison of
// timestamped output.
#ifndef FSIC_TESTS_UNIT_LOG_LOG_TEST_SUPPORT_H
#define FSIC_TESTS_UNIT_LOG_LOG_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace log_test {

constexpr size_t kTimestampLen = 23; // "YYYY/MM/DD HH:MM:SS.mmm"

// `text` has the shape of `pattern`, where 'd' stands for a digit and any other
// character for itself.
inline bool has_shape(std::string_view text, std::string_view pattern) {
  if (text.size() != pattern.size())
    return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (pattern[i] == 'd' ? !digit : text[i] != pattern[i])
      return false;
  }
  return true;
}

// A local date and time "YYYY/MM/DD HH:MM:SS.mmm" within a few seconds of now.
inline ::testing::AssertionResult IsRecentTimestamp(std::string_view ts) {
  if (!has_shape(ts, "dddd/dd/dd dd:dd:dd.ddd"))
    return ::testing::AssertionFailure() << "bad timestamp shape: '" << ts << "'";
  const std::string s(ts);
  struct tm tm = {};
  int msec = 0;
  std::sscanf(s.c_str(), "%d/%d/%d %d:%d:%d.%d", &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &tm.tm_hour,
              &tm.tm_min, &tm.tm_sec, &msec);
  tm.tm_year -= 1900;
  tm.tm_mon -= 1;
  tm.tm_isdst = -1;
  const time_t when = mktime(&tm);
  const time_t now = time(nullptr);
  if (when == (time_t)-1 || when > now + 1 || when < now - 10)
    return ::testing::AssertionFailure() << "timestamp '" << ts << "' is not the local time";
  return ::testing::AssertionSuccess();
}

// `out` is exactly the records, each a timestamp followed by the given rest.
inline ::testing::AssertionResult HasRecords(const std::string &out,
                                             const std::vector<std::string> &rests) {
  size_t pos = 0;
  for (size_t i = 0; i < rests.size(); ++i) {
    if (out.size() < pos + kTimestampLen)
      return ::testing::AssertionFailure() << "record " << i << " missing in:\n" << out;
    auto ts = IsRecentTimestamp(std::string_view(out).substr(pos, kTimestampLen));
    if (!ts)
      return ts << " (record " << i << ")";
    pos += kTimestampLen;
    if (out.compare(pos, rests[i].size(), rests[i]) != 0)
      return ::testing::AssertionFailure()
             << "record " << i << " is '" << out.substr(pos - kTimestampLen) << "', expected rest '"
             << rests[i] << "'";
    pos += rests[i].size();
  }
  if (pos != out.size())
    return ::testing::AssertionFailure() << "unexpected output: '" << out.substr(pos) << "'";
  return ::testing::AssertionSuccess();
}

} // namespace log_test

#endif // FSIC_TESTS_UNIT_LOG_LOG_TEST_SUPPORT_H
