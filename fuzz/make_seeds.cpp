// Writes the seed corpora of the fuzz targets: the worked examples of the formats,
// blobs that the library writes for lists built from a real directory tree (every
// combination of flags, masks, nesting), identifier records of every kind, and
// configuration files and format strings from the logging tests.
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
#include "fs/volume_id_internal.h"

namespace {

namespace fsys = std::filesystem;
using fuzz::Bytes;
using fuzz::Writer;

fsys::path g_out;

void die(const std::string &what) {
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
  if (wb_init(&buf, 0) != FSIC_OK || _fs_write_volume_id_to_rbuf(id, &buf) != FSIC_OK)
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
  // one wins), objects out of order, a NUL inside a path, trailing bytes, a bad type.
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

  Writer order;
  order.u32(2);
  order.u16(0);
  order.str("/z");
  order.u16(0);
  order.u16(0);
  order.u16(2);
  order.b.insert(order.b.end(), {'/', 'a', 0, 'x'}); // /a with a NUL inside
  order.u16(0);
  order.b.insert(order.b.end(), {0xDE, 0xAD}); // trailing bytes
  save("ocl_blob", "unsorted-nul-trailing", order.b);
  save("ocl_blob", "unknown-type", Bytes{1, 0, 0, 0, 2, 0, 2, 0, '/', 'x'});
  // An info record whose counts ask for far more than the blob holds.
  save("ocl_blob", "huge-counts",
       Bytes{1, 0, 0, 0, 1, 0, 2, 0, '/', 'd', 0, 0, 0x0F, 0, 0xFF, 0xFF, 0xFF, 0x0F});
}

void write_id_seeds() {
  fs_volume_id *part, *image, *lvm;
  if (fs_partition_id_create("ABC", 1, &part) != FSIC_OK ||
      fs_image_partition_id_create("disk.img", 2, &image) != FSIC_OK ||
      fs_lvm_volume_id_create("vg", "lv", &lvm) != FSIC_OK)
    die("identifiers");
  const Bytes p = id_blob(part), i = id_blob(image), l = id_blob(lvm);
  save("volume_id", "partition-ABC-1", p); // 00 00 03 00 41 42 43 01 00
  save("volume_id", "image-partition", i);
  save("volume_id", "lvm-vg-lv", l); // 02 00 02 00 76 67 02 00 6C 76
  save("volume_id", "partition-then-image", concat(p, i));
  save("volume_id", "lvm-then-partition", concat(l, p));
  save("volume_id", "unknown-kind", Bytes{3, 0, 1, 0, 'x'});
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
