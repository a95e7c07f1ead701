// The database file on disk: read, checked, written, locked.
#include "cli/store.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "cli/exit_status.h"
#include "cli/file_io.h"
#include "cli/key_file.h"

namespace fsic::cli {

int load_key(const std::string &key_path, std::string *key) {
  if (key_path.empty())
    return EXIT_OK;
  return read_key_file(key_path, key);
}

int load_database(const std::string &path, const std::string &key, database *out) {
  std::string bytes;
  int error = read_whole_file(path, &bytes);
  if (error != 0) {
    fprintf(stderr, "fsic: database %s: %s\n", path.c_str(), strerror(error));
    return EXIT_DB_FORMAT;
  }
  std::string why;
  int status = decode_database(bytes, key, out, &why);
  if (status == EXIT_NO_MEMORY)
    fprintf(stderr, "fsic: out of memory\n");
  else if (status != EXIT_OK)
    fprintf(stderr, "fsic: database %s: %s\n", path.c_str(), why.c_str());
  return status;
}

int save_database(const std::string &path, const std::string &key, database *db) {
  db->created = static_cast<uint64_t>(time(nullptr));
  char host[HOST_NAME_MAX + 1] = {};
  if (gethostname(host, sizeof host - 1) != 0)
    host[0] = '\0';
  db->host = host;
  std::string bytes;
  fsic_status status = encode_database(*db, key, &bytes);
  if (status == FSIC_ERR_NO_MEMORY) {
    fprintf(stderr, "fsic: out of memory\n");
    return EXIT_NO_MEMORY;
  }
  if (status != FSIC_OK) {
    fprintf(stderr,
            "fsic: database %s: too large for the format (a name above 65535 bytes, "
            "or more than 4 GiB); the previous database is intact\n",
            path.c_str());
    return EXIT_WRITE;
  }
  std::string step;
  int error = replace_file(path, bytes, &step);
  if (error != 0) {
    fprintf(stderr, "fsic: database %s: cannot %s: %s; the previous database is intact\n",
            path.c_str(), step.c_str(), strerror(error));
    return EXIT_WRITE;
  }
  return EXIT_OK;
}

int lock_database(const std::string &path, file_lock *lock) {
  int error = lock->acquire(path);
  if (error == EWOULDBLOCK) {
    fprintf(stderr, "fsic: database %s is locked by another fsic\n", path.c_str());
    return EXIT_LOCKED;
  }
  if (error != 0) {
    fprintf(stderr, "fsic: database %s: cannot lock %s.lock: %s\n", path.c_str(), path.c_str(),
            strerror(error));
    return EXIT_WRITE;
  }
  return EXIT_OK;
}

} // namespace fsic::cli
