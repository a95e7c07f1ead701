// Content hashes of the files of one directory, many files at once.
//
// Up to 64 files are open together, each read from its start in reads of 128 KiB into
// a buffer of its own (8 MiB at most, kept by the walk for its next directories), and
// their hashes advance together through the multi-stream hash: the files' independent
// hashes are what lets the processor's vector units work on many of them per
// instruction. Each file is still read sequentially and measured exactly as one read
// alone is (the same opening, the same stats around each pass, the same rereads of a
// file that changes, the same statuses), and the results are handed to the caller in
// the directory's order, a window of files at a time.
//
// FSIC_HASH_STREAMS=N in the environment caps the files read at once (1 to 64; 1 reads
// them one after another, as for a single file).
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fsic/gost_r3411_94.h>

#include <algorithm>

#include "fs/ocl_internal.h"
#include "hash/gost_r3411_94_internal.h"
#include "util/owner.h"

namespace {

// Files open at once: twice the kernel's group, from which it takes the files with the
// most left to hash. Their hashes then end close together: with only a group's worth
// open, the files of a directory end a few at a time, the kernel ever emptier, the last
// ones on the single-stream path (fsic-bench-ocl: adds of 100-file directories of small
// files 2.3x one file at a time with 64 open in name order, 2.4x with 32).
constexpr int max_streams = 2 * GOST_R3411_94_LANES;
// Blocks that the group advances before it is chosen again.
constexpr size_t quantum = 64;
constexpr size_t chunk_size = 8 * FS_OCL_READ_UNIT;
// Files measured before their results are handed out.
constexpr int window = 256;
constexpr unsigned param_set = 1;
constexpr size_t block = GOST_R3411_94_BLOCK_SIZE;

// One file being read. Its unread data is buf[pos, len); `off` is the file offset read
// up to; `before` is the stat that opens the current pass.
struct stream_slot {
  int job;
  int fd;
  int pass;
  bool eof;
  struct stat before;
  uint64_t off;
  size_t pos, len;
  uint8_t *buf;
  gost_r3411_94_ctx ctx;
};

} // namespace

// What a walk keeps between directories: the slots with their buffers, and the results
// of a window.
struct fs_ocl_hash_arena {
  stream_slot slots[max_streams];
  fs_ocl_file_hash results[window];
};

namespace {

// The number of files read at once: FSIC_HASH_STREAMS, or 64.
int stream_limit() noexcept {
  const char *v = getenv("FSIC_HASH_STREAMS");
  if (v == nullptr || *v == '\0')
    return max_streams;
  char *end = nullptr;
  const long n = strtol(v, &end, 10);
  if (*end != '\0' || n < 1)
    return max_streams;
  return n < max_streams ? int(n) : max_streams;
}

// A result not known yet.
constexpr fsic_status pending = ~0u;

// One window of files: names[0, count) of `dir`, results in `out`, handed to `use`
// (with `first` added to the index) in order.
struct batch {
  fs_ocl_walk *w;
  int dir;
  char *const *names;
  int count;
  int first;
  fs_ocl_file_hash_use use;
  void *arg;
  int next;   // the next file to open
  int handed; // the files handed out
  fs_ocl_file_hash *out;
  stream_slot *slots;
  int nslots;
  int busy; // slots with a file
  // Files that could not be opened for want of descriptors while others were open:
  // measured one at a time at the end.
  int deferred[window];
  int ndeferred;
};

void finish(batch &b, stream_slot &s, fsic_status status) noexcept {
  b.out[s.job].status = status;
  close(s.fd);
  s.fd = -1;
  s.job = -1;
  --b.busy;
}

// Opens the next file into the free slot `s`; false when none is left.
bool start_next(batch &b, stream_slot &s) noexcept {
  while (b.next < b.count) {
    const int job = b.next++;
    int fd;
    struct stat st;
    errno = 0;
    const fsic_status status = _fs_ocl_open_file_entry(b.w, b.dir, b.names[job], &fd, &st);
    if (status == FSIC_ERR_FAILED && (errno == EMFILE || errno == ENFILE) && b.busy > 0) {
      b.deferred[b.ndeferred++] = job;
      continue;
    }
    if (status != FSIC_OK) {
      b.out[job].status = status;
      continue;
    }
    s.job = job;
    s.fd = fd;
    s.pass = 0;
    s.eof = false;
    s.before = st;
    s.off = 0;
    s.pos = s.len = 0;
    gost_r3411_94_init(&s.ctx, param_set);
    ++b.busy;
    return true;
  }
  return false;
}

// The next read of the current pass: up to the size of the pass's opening stat rounded
// up to the read unit, as a file read alone is, or to the end for a file that says 0
// bytes. A read error (EINTR included) ends the file.
void read_chunk(batch &b, stream_slot &s) noexcept {
  const uint64_t size = static_cast<uint64_t>(s.before.st_size);
  if (size != 0 && s.off >= size) {
    s.eof = true;
    return;
  }
  size_t want = chunk_size;
  if (size != 0) {
    const uint64_t end = (size + FS_OCL_READ_UNIT - 1) / FS_OCL_READ_UNIT * FS_OCL_READ_UNIT;
    if (end - s.off < want)
      want = static_cast<size_t>(end - s.off);
  }
  const ssize_t n = pread(s.fd, s.buf, want, static_cast<off_t>(s.off));
  if (n < 0) {
    finish(b, s, FSIC_ERR_FAILED);
    return;
  }
  if (n == 0) {
    s.eof = true;
    return;
  }
  // Advice only, for files longer than one read.
  if (s.off == 0 && static_cast<size_t>(n) == chunk_size)
    posix_fadvise(s.fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  s.off += static_cast<uint64_t>(n);
  s.pos = 0;
  s.len = static_cast<size_t>(n);
}

// The end of a pass: the file's hash when the stats around the pass agree with each
// other and with the bytes read, else another pass, up to the rereads allowed.
void end_pass(batch &b, stream_slot &s) noexcept {
  struct stat after;
  if (fstat(s.fd, &after) != 0) {
    finish(b, s, FSIC_ERR_FAILED);
    return;
  }
  if (_fs_ocl_stat_unchanged(&s.before, &after) && s.off == static_cast<uint64_t>(after.st_size)) {
    gost_r3411_94_final(&s.ctx, b.out[s.job].hash);
    b.out[s.job].st = after;
    finish(b, s, FSIC_OK);
    return;
  }
  if (s.pass == FS_OCL_MAX_REREADS) {
    finish(b, s, FSIC_ERR_CHANGED);
    return;
  }
  ++s.pass;
  s.before = after;
  s.off = 0;
  s.eof = false;
  s.pos = s.len = 0;
  gost_r3411_94_init(&s.ctx, param_set);
}

// Brings slot `s` to a state with at least one whole block to hash and nothing pending
// in its context's partial block, or leaves it free when no file is left.
void feed(batch &b, stream_slot &s) noexcept {
  for (;;) {
    if (s.job < 0 && !start_next(b, s))
      return;
    const size_t avail = s.len - s.pos;
    if (avail >= block)
      return;
    if (avail != 0) {
      gost_r3411_94_update(&s.ctx, s.buf + s.pos, static_cast<unsigned>(avail));
      s.pos = s.len;
    }
    if (s.eof) {
      end_pass(b, s);
      continue;
    }
    read_chunk(b, s);
    // Complete the pending partial block from the new data.
    const size_t pending = static_cast<size_t>(s.ctx.partial_bytes);
    if (s.job >= 0 && pending != 0 && s.len > s.pos) {
      const size_t room = block - pending;
      const size_t take = s.len - s.pos < room ? s.len - s.pos : room;
      gost_r3411_94_update(&s.ctx, s.buf + s.pos, static_cast<unsigned>(take));
      s.pos += take;
    }
  }
}

// What is left to hash of the file in slot `s`: the rest of its buffer and the unread
// rest of its size (a file that says 0 bytes counts as large).
uint64_t left_of(const stream_slot &s) noexcept {
  const uint64_t size = static_cast<uint64_t>(s.before.st_size);
  const uint64_t unread = size == 0 ? UINT64_MAX / 2 : size > s.off ? size - s.off : 0;
  return unread + (s.len - s.pos);
}

// Hashes the whole blocks that the slots in `ids` have, as far as the one with the
// fewest goes and at most `most`, all together.
void advance(batch &b, const int *ids, int n, size_t most) noexcept {
  gost_r3411_94_ctx *ctx[GOST_R3411_94_LANES];
  const uint8_t *data[GOST_R3411_94_LANES];
  size_t blocks = most;
  for (int i = 0; i < n; ++i) {
    stream_slot &s = b.slots[ids[i]];
    const size_t have = (s.len - s.pos) / block;
    blocks = have < blocks ? have : blocks;
    ctx[i] = &s.ctx;
    data[i] = s.buf + s.pos;
  }
  gost_r3411_94_blocks_multi(ctx, data, static_cast<unsigned>(n), blocks);
  for (int i = 0; i < n; ++i)
    b.slots[ids[i]].pos += blocks * block;
}

// Hands out the results that are ready, in order; the first status other than 0 that
// `use` returns.
fsic_status hand_out(batch &b) noexcept {
  while (b.handed < b.count && b.out[b.handed].status != pending) {
    const int i = b.handed++;
    FSIC_TRY(b.use(b.arg, b.first + i, &b.out[i]));
  }
  return FSIC_OK;
}

// Closes the files still open, unread.
void abandon(batch &b) noexcept {
  for (int i = 0; i < b.nslots; ++i) {
    if (b.slots[i].job >= 0)
      finish(b, b.slots[i], pending);
  }
}

// Measures the files of the window and hands them out.
fsic_status run(batch &b) noexcept {
  for (int i = 0; i < b.count; ++i)
    b.out[i].status = pending;
  for (;;) {
    int active[max_streams];
    int n = 0;
    for (int i = 0; i < b.nslots; ++i) {
      feed(b, b.slots[i]);
      if (b.slots[i].job >= 0)
        active[n++] = i;
    }
    const fsic_status status = hand_out(b);
    if (status != FSIC_OK) {
      abandon(b);
      return status;
    }
    if (n == 0)
      break;
    if (n <= GOST_R3411_94_LANES) {
      advance(b, active, n, SIZE_MAX);
      continue;
    }
    // The group: the files with the most left, for a while.
    std::nth_element(active, active + GOST_R3411_94_LANES - 1, active + n,
                     [&b](int x, int y) { return left_of(b.slots[x]) > left_of(b.slots[y]); });
    advance(b, active, GOST_R3411_94_LANES, quantum);
  }
  // Those that could not be opened beside the others, alone now.
  for (int i = 0; i < b.ndeferred; ++i) {
    fs_ocl_file_hash &r = b.out[b.deferred[i]];
    r.status = _fs_ocl_hash_entry(b.w, b.dir, b.names[b.deferred[i]], r.hash, &r.st);
    FSIC_TRY(hand_out(b));
  }
  return FSIC_OK;
}

// The walk's arena, made on first use, with buffers for `nslots` slots.
fsic_status arena_of(fs_ocl_walk *w, int nslots, fs_ocl_hash_arena **out) noexcept {
  if (!w->hashing) {
    auto *a = static_cast<fs_ocl_hash_arena *>(calloc(1, sizeof(fs_ocl_hash_arena)));
    if (!a)
      return FSIC_ERR_NO_MEMORY;
    for (stream_slot &s : a->slots)
      s.job = s.fd = -1;
    w->hashing = a;
  }
  for (int i = 0; i < nslots; ++i) {
    stream_slot &s = w->hashing->slots[i];
    if (!s.buf && !(s.buf = static_cast<uint8_t *>(malloc(chunk_size))))
      return FSIC_ERR_NO_MEMORY;
  }
  *out = w->hashing;
  return FSIC_OK;
}

// Measures the files one after another, as for a single file.
fsic_status hash_one_by_one(fs_ocl_walk *w, int dir, char *const *names, int count,
                            fs_ocl_file_hash_use use, void *arg) noexcept {
  for (int i = 0; i < count; ++i) {
    fs_ocl_file_hash r = {};
    r.status = _fs_ocl_hash_entry(w, dir, names[i], r.hash, &r.st);
    FSIC_TRY(use(arg, i, &r));
  }
  return FSIC_OK;
}

} // namespace

extern "C" {

fsic_status _fs_ocl_hash_entries(fs_ocl_walk *w, int dir, char *const *names, int count,
                                 fs_ocl_file_hash_use use, void *arg) noexcept {
  const int limit = stream_limit();
  if (limit == 1 || count <= 1)
    return hash_one_by_one(w, dir, names, count, use, arg);
  for (int first = 0; first < count; first += window) {
    const int n = count - first < window ? count - first : window;
    const int nslots = n < limit ? n : limit;
    fs_ocl_hash_arena *a;
    FSIC_TRY(arena_of(w, nslots, &a));
    batch b{};
    b.w = w;
    b.dir = dir;
    b.names = names + first;
    b.count = n;
    b.first = first;
    b.use = use;
    b.arg = arg;
    b.out = a->results;
    b.slots = a->slots;
    b.nslots = nslots;
    FSIC_TRY(run(b));
  }
  return FSIC_OK;
}

void _fs_ocl_hash_arena_free(fs_ocl_hash_arena *a) noexcept {
  if (!a)
    return;
  for (stream_slot &s : a->slots)
    free(s.buf);
  free(a);
}

} // extern "C"
