// Writes the seed corpora of the fuzz targets: the worked examples of the formats,
// blobs that the library writes for lists built from a real directory tree (every
// combination of flags, masks, nesting), blobs of each kind that the readers refuse,
// identifier records of every kind, and configuration files and format strings from
// the logging tests.
//
//   fuzz_make_seeds <dir>   writes <dir>/<target>/<name> for every target
//
// The committed corpora under fuzz/corpus started from this output; fuzzing then added
// to them, and they were minimised with libFuzzer's -merge=1.
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <fsic/buffer.h>
#include <fsic/icl.h>
#include <fsic/ocl.h>
#include <fsic/volume_id.h>

#include "blob_model.h"
#include "fs/icl_internal.h"

namespace {

namespace fsys = std::filesystem;
using fuzz::Bytes;
using fuzz::Writer;

fsys::path g_out;

[[noreturn]] void die(const std::string &what) {
  fprintf(stderr, "make_seeds: %s\n", what.c_str());
  exit(1);
}

void save(const std::string &target, const std::string &name, const Bytes &bytes) {
  fsys::create_directories(g_out / target);
  std::ofstream out(g_out / target / name, std::ios::binary);
  out.write(reinterpret_cast<const char *>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  if (!out)
    die("cannot write " + (g_out / target / name).string());
}

void save_text(const std::string &target, const std::string &name, const std::string &text) {
  save(target, name, Bytes(text.begin(), text.end()));
}

void write_file(const fsys::path &path, const std::string &content) {
  fsys::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

Bytes ocl_blob(const fs_ocl *ocl) {
  uint8_t *data;
  uint32_t size;
  if (fs_ocl_write_to_mem(ocl, &data, &size) != FSIC_OK)
    die("fs_ocl_write_to_mem");
  Bytes b(data, data + size);
  free(data);
  return b;
}

Bytes icl_blob(const fs_icl *icl) {
  uint8_t *data;
  uint32_t size;
  if (fs_icl_write_to_mem(icl, &data, &size) != FSIC_OK)
    die("fs_icl_write_to_mem");
  Bytes b(data, data + size);
  free(data);
  return b;
}

Bytes id_blob(const fs_volume_id *id) {
  wb buf;
  if (wb_init(&buf, 0) != FSIC_OK || fs_volume_id_write_to_wbuf(id, &buf) != FSIC_OK)
    die("identifier write");
  Bytes b(buf.data, buf.data + buf.used);
  wb_finalize(&buf, 1);
  return b;
}

Bytes concat(Bytes a, const Bytes &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// A small tree: files at two levels, a hidden file, an empty subdirectory, names that
// masks select or not.
void make_tree(const fsys::path &root) {
  write_file(root / "a", "hello, integrity\n");
  write_file(root / "d" / "f", "x");
  write_file(root / "d" / "prog.exe", "MZ");
  write_file(root / "d" / ".hidden", "");
  write_file(root / "d" / "s" / "in", "inner");
  write_file(root / "d" / "s" / "t" / "deep.exe", "deeper");
  fsys::create_directories(root / "d" / "empty");
}

// Lists of the real tree with every flag combination, plus the worked examples.
std::vector<fs_ocl *> ocl_seeds(const fsys::path &root) {
  std::vector<fs_ocl *> lists;
  char mask_exe[] = "*.exe";
  char mask_f[] = "f";
  char *masks[] = {mask_exe, mask_f, nullptr};
  for (uint32_t flags = 0; flags < 16; flags++) {
    fs_ocl *ocl;
    if (fs_ocl_create(&ocl) != FSIC_OK)
      die("fs_ocl_create");
    if (fs_ocl_add_file(ocl, root.c_str(), "/a", flags, nullptr) != FSIC_OK ||
        fs_ocl_add_dir(ocl, root.c_str(), "/d", (flags & 2) ? masks : nullptr, flags, nullptr) !=
            FSIC_OK)
      die("adding objects with flags " + std::to_string(flags));
    lists.push_back(ocl);
  }
  return lists;
}

// One file object at `path` (flags 0) as a list of its own.
Bytes file_list(const std::string &path) {
  Writer w;
  w.u32(1);
  w.u16(0);
  w.str(path);
  w.u16(0);
  return w.b;
}

// One EACH_FILE | RECURSIVE directory /d whose root level holds these files and (empty)
// subdirectories, in this order.
Bytes level_list(const std::vector<std::string> &files, const std::vector<std::string> &subdirs) {
  Writer w;
  w.u32(1);
  w.u16(1);
  w.str("/d");
  w.u16(0);
  w.u16(3);
  w.u32(static_cast<uint32_t>(subdirs.size()));
  for (const std::string &name : subdirs) {
    w.str(name);
    w.u32(0);
    w.u32(0);
  }
  w.u32(static_cast<uint32_t>(files.size()));
  for (const std::string &name : files)
    w.str(name);
  return w.b;
}

// A directory /d with these flags whose root info record starts with the counts (the
// file count only when there are no subdirectories), followed by `filler` zero bytes.
Bytes counts_list(uint32_t subdirs, uint32_t files, uint16_t flags, size_t filler) {
  Writer w;
  w.u32(1);
  w.u16(1);
  w.str("/d");
  w.u16(0);
  w.u16(flags);
  w.u32(subdirs);
  if (subdirs == 0)
    w.u32(files);
  w.b.resize(w.b.size() + filler, 0);
  return w.b;
}

// Blobs that the reader refuses with 1: paths and names that no list may hold, names
// out of order, masks with a NUL, counts that the rest of the blob cannot back.
void write_ocl_refusal_seeds() {
  const std::string nul_path("/a\0x", 4), nul_name("a\0b", 3);
  save("ocl_blob", "path-relative", file_list("../../etc/shadow"));
  save("ocl_blob", "path-up", file_list("/../../.."));
  save("ocl_blob", "path-dot", file_list("/a/./b"));
  save("ocl_blob", "path-dot-dot-last", file_list("/a/.."));
  save("ocl_blob", "path-nul", file_list(nul_path));
  save("ocl_blob", "name-empty", level_list({""}, {}));
  save("ocl_blob", "name-dot", level_list({"."}, {}));
  save("ocl_blob", "name-dot-dot", level_list({}, {".."}));
  save("ocl_blob", "name-slash", level_list({"a/b"}, {}));
  save("ocl_blob", "name-nul", level_list({}, {nul_name}));
  save("ocl_blob", "files-unsorted", level_list({"b", "a"}, {}));
  save("ocl_blob", "subdirs-unsorted", level_list({}, {"b", "a"}));
  save("ocl_blob", "names-equal", level_list({"a", "a"}, {"a"}));
  save("ocl_blob", "names-ascending", level_list({"A", "a", "b", "\xc3\xa9"}, {"a", "b"}));

  Writer masks;
  masks.u32(1);
  masks.u16(1);
  masks.str("/d");
  masks.u16(2);
  masks.str("");
  masks.str(std::string("*.exe\0.dll", 10));
  masks.u16(0);
  masks.b.resize(masks.b.size() + 32, 0xAB);
  save("ocl_blob", "mask-nul", masks.b);

  save("ocl_blob", "object-count-too-large", Bytes{0xFF, 0xFF, 0, 0, 0, 0, 1, 0, '/', 0, 0});
  Writer mask_count;
  mask_count.u32(1);
  mask_count.u16(1);
  mask_count.str("/d");
  mask_count.u16(0xFFFF);
  save("ocl_blob", "mask-count-too-large", mask_count.b);
  // The 18-byte blob of 2^31 - 1 subdirectories with attributes.
  save("ocl_blob", "subdir-count-too-large", counts_list(0x7FFFFFFF, 0, 0x0F, 0));
  save("ocl_blob", "file-count-too-large", counts_list(0, 0x7FFFFFFF, 0x0D, 0));
  // Counts whose smallest entries exactly fill the rest (taken, then the entries are
  // refused), and one more (refused at once).
  save("ocl_blob", "file-count-at-limit", counts_list(0, 20, 0x0D, 20 * 51));
  save("ocl_blob", "file-count-over-limit", counts_list(0, 21, 0x0D, 20 * 51));
  save("ocl_blob", "subdir-count-at-limit", counts_list(20, 0, 0x0B, 20 * 19));
  save("ocl_blob", "subdir-count-over-limit", counts_list(21, 0, 0x0B, 20 * 19));
}

void write_ocl_seeds(const fsys::path &root) {
  // Worked examples: the empty list, one file /a with flags 12 (60 bytes), one
  // EACH_FILE directory /d holding the file f (25 bytes).
  save("ocl_blob", "empty", Bytes{0, 0, 0, 0});
  {
    fs_ocl *ocl;
    fs_ocl_create(&ocl);
    if (fs_ocl_add_file(ocl, root.c_str(), "/a", 12, nullptr) != FSIC_OK)
      die("example /a");
    save("ocl_blob", "example-file-60", ocl_blob(ocl));
    fs_ocl_destroy(ocl);
  }
  save("ocl_blob", "example-dir-25",
       Bytes{1, 0, 0, 0, 1, 0, 2, 0, '/', 'd', 0, 0, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 'f'});

  std::vector<fs_ocl *> lists = ocl_seeds(root);
  for (size_t i = 0; i < lists.size(); i++) {
    save("ocl_blob", "tree-flags-" + std::to_string(i), ocl_blob(lists[i]));
    fs_ocl_destroy(lists[i]);
  }

  // By hand: masks before the directory's flags, two objects with one path (the later
  // one wins), objects out of order, trailing bytes, a bad type, and what the reader
  // refuses.
  Writer w;
  w.u32(3);
  w.u16(1);
  w.str("/d");
  w.u16(2);
  w.str("*.exe");
  w.str("*.EXE");
  w.u16(4);
  for (int i = 0; i < 32; i++)
    w.b.push_back(static_cast<uint8_t>(0xA0 + i));
  w.u16(0);
  w.str("/f");
  w.u16(0);
  w.u16(0);
  w.str("/d");
  w.u16(8);
  for (int i = 0; i < 16; i++)
    w.b.push_back(static_cast<uint8_t>(i));
  save("ocl_blob", "masks-and-repeated-path", w.b);

  // Objects out of order and bytes after the list: read from a buffer, the list ends
  // before them; read on its own, the blob is refused.
  Writer order;
  order.u32(2);
  order.u16(0);
  order.str("/z");
  order.u16(0);
  order.u16(0);
  order.str("/a");
  order.u16(0);
  order.b.insert(order.b.end(), {0xDE, 0xAD}); // trailing bytes
  save("ocl_blob", "unsorted-trailing", order.b);
  save("ocl_blob", "unknown-type", Bytes{1, 0, 0, 0, 2, 0, 2, 0, '/', 'x'});
  // An info record whose counts ask for far more than the blob holds.
  save("ocl_blob", "huge-counts",
       Bytes{1, 0, 0, 0, 1, 0, 2, 0, '/', 'd', 0, 0, 0x0F, 0, 0xFF, 0xFF, 0xFF, 0x0F});
  write_ocl_refusal_seeds();
}

void write_id_seeds() {
  fs_volume_id *part, *image, *lvm, *uuid;
  if (fs_partition_id_create("ABC", 1, &part) != FSIC_OK ||
      fs_image_partition_id_create("disk.img", 2, &image) != FSIC_OK ||
      fs_lvm_volume_id_create("vg", "lv", &lvm) != FSIC_OK ||
      fs_uuid_volume_id_create("0b1c2d3e-6101-4a5b-8c6d-7e8f90a1b2c1", &uuid) != FSIC_OK)
    die("identifiers");
  const Bytes p = id_blob(part), i = id_blob(image), l = id_blob(lvm), u = id_blob(uuid);
  save("volume_id", "partition-ABC-1", p); // 00 00 03 00 41 42 43 01 00
  save("volume_id", "image-partition", i);
  save("volume_id", "lvm-vg-lv", l); // 02 00 02 00 76 67 02 00 6C 76
  save("volume_id", "partition-then-image", concat(p, i));
  save("volume_id", "lvm-then-partition", concat(l, p));
  save("volume_id", "uuid", u);
  save("volume_id", "uuid-then-partition", concat(u, p));
  save("volume_id", "uuid-short", Bytes{3, 0, 4, 0, 'a', 'b'});
  save("volume_id", "unknown-kind", Bytes{4, 0, 1, 0, 'x'});
  fs_volume_id_destroy(uuid);
  fs_volume_id_destroy(part);
  fs_volume_id_destroy(image);
  fs_volume_id_destroy(lvm);
}

void write_icl_seeds(const fsys::path &root) {
  save("icl_blob", "empty", Bytes{0, 0});
  std::vector<fs_ocl *> lists = ocl_seeds(root);
  // Two lists of two entries each, every identifier kind, and one with a duplicate id.
  for (size_t n = 0; n < lists.size(); n += 4) {
    fs_icl *icl;
    if (fs_icl_create(&icl) != FSIC_OK)
      die("fs_icl_create");
    fs_volume_id *a, *b;
    if (n % 8 == 0) {
      fs_partition_id_create("SERIAL-1", 1, &a);
      fs_lvm_volume_id_create("vg0", "root", &b);
    } else {
      fs_image_partition_id_create("image", 3, &a);
      fs_image_partition_id_create("image", 3, &b);
    }
    if (_fs_icl_create_volume(icl, a, lists[n], nullptr) != FSIC_OK ||
        _fs_icl_create_volume(icl, b, lists[n + 1], nullptr) != FSIC_OK)
      die("_fs_icl_create_volume");
    save("icl_blob", "two-entries-" + std::to_string(n / 4), icl_blob(icl));
    fs_icl_destroy(icl);
    fs_ocl_destroy(lists[n + 2]);
    fs_ocl_destroy(lists[n + 3]);
  }
  // A count of two with one entry; an unknown kind.
  save("icl_blob", "count-two-one-entry", Bytes{2, 0, 0, 0, 1, 0, 'A', 1, 0, 0, 0, 0, 0});
  save("icl_blob", "unknown-kind", Bytes{1, 0, 7, 0});

  // Refused with 1: a count of one over two entries (the second is left over), bytes
  // after the last entry, more entries than the blob can hold (10 bytes each at
  // least), and an entry whose list holds a path or a name out of the volume or a
  // file count of 2^31 - 1 with hashes and attributes.
  const Bytes entry{0, 0, 1, 0, 'A', 1, 0, 0, 0, 0, 0};
  save("icl_blob", "count-lower-than-entries", concat(concat(Bytes{1, 0}, entry), entry));
  save("icl_blob", "trailing-byte", concat(concat(Bytes{1, 0}, entry), Bytes{0}));
  save("icl_blob", "entry-count-too-large",
       concat(Bytes{2, 0}, Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  const Bytes id{0, 0, 1, 0, 'S', 1, 0};
  Writer path;
  path.u32(1);
  path.u16(0);
  path.str("../../etc/shadow");
  path.u16(0);
  save("icl_blob", "path-relative", concat(concat(Bytes{1, 0}, id), path.b));
  Writer up;
  up.u32(1);
  up.u16(1);
  up.str("/../../..");
  up.u16(0);
  up.u16(0);
  up.b.resize(up.b.size() + 32, 0);
  save("icl_blob", "path-up", concat(concat(Bytes{1, 0}, id), up.b));
  Writer name;
  name.u32(1);
  name.u16(1);
  name.str("/d");
  name.u16(0);
  name.u16(1);
  name.u32(0);
  name.u32(2);
  name.str("a/b");
  name.str("..");
  save("icl_blob", "names-not-file-names", concat(concat(Bytes{1, 0}, id), name.b));
  Writer huge;
  huge.u32(1);
  huge.u16(1);
  huge.str("/d");
  huge.u16(0);
  huge.u16(0x0D);
  huge.u32(0);
  huge.u32(0x7FFFFFFF);
  save("icl_blob", "file-count-too-large", concat(concat(Bytes{1, 0}, id), huge.b));
}

void write_log_seeds() {
  const std::vector<std::pair<std::string, std::string>> configs = {
      {"sections", "# channels\nlevel=warn\n[fs]\nlevel = debug\n[ fs ]\n\n[a1]\nlevel=0x3\n"},
      {"format", "[fs]\nformat = '%{channel}: %{message}'  \nlevel=trace\n"},
      {"format-escapes", "format=\"%{time} \\\"%{file}\\\" \\\\ %{line}\"\n"},
      {"bad-lines", "[fs_ocl]\nlevel 4\nLevel=4\n[fs] x\nformat=%{message}\nlevel=-1\n"
                    "[fs]\r\nlevel=4\r\nformat='x'\r\n"},
      {"levels", "[a]\nlevel=30\n[b]\nlevel=31\n[c]\nlevel=trace\n[d]\nlevel= 010 \n"
                 "[e]\nlevel=99999999999\n[f]\nlevel=-2147483649\n"},
      {"long-name",
       "[" + std::string(32, 'b') + "]\nlevel=5\n[" + std::string(31, 'a') + "]\nlevel=2\n"},
      {"long-line", "#" + std::string(253, 'x') + "level=4\n"},
  };
  for (const auto &[name, text] : configs)
    save_text("log_config", name, text);
  std::string many;
  for (int i = 0; i < 40; i++)
    many += "[c" + std::to_string(i) + "]\nlevel=" + std::to_string(i % 8) + "\n";
  save_text("log_config", "many-sections", many);

  const std::vector<std::pair<std::string, std::string>> formats = {
      {"default", "%{timestamp} [%{channel}] %{class}: %{source} %{message}"},
      {"all-placeholders",
       "%{timestamp}%{date}%{time}%{channel}%{class}%{source}%{file}%{function}%{line}"
       "%{message}"},
      {"percent-rules", "a%xb%%c%"},
      {"percent-braces", "%%{line}|%{times}|%{line"},
      {"runs", "<%{line}%{line}>%{message}"},
      {"times", "%{date} %{time} %{timestamp} %{message}%{message}"},
      {"text-255", std::string(255, 'x')},
  };
  for (const auto &[name, text] : formats)
    save_text("log_format", name, text);
  std::string items;
  for (int i = 0; i < 16; i++)
    items += "x%{line}";
  save_text("log_format", "items-32", items);
  save_text("log_format", "text-254-run", std::string(253, 'x') + "%{line}y");
}

} // namespace

int main(int argc, char **argv) {
  if (argc != 2)
    die("usage: fuzz_make_seeds <output directory>");
  g_out = argv[1];
  char templ[] = "/tmp/fsic-seeds-XXXXXX";
  if (!mkdtemp(templ))
    die("mkdtemp");
  const fsys::path root = templ;
  make_tree(root);
  write_ocl_seeds(root);
  write_icl_seeds(root);
  write_id_seeds();
  write_log_seeds();
  fsys::remove_all(root);
  return 0;
}
