// Throughput of the GOST R 34.11-94 hash of this library against other implementations
// (librhash, libgcrypt, Botan 2), all measured in this process on the same data. Each
// peer is compiled in only when it was found at build time (FSIC_HAVE_RHASH,
// FSIC_HAVE_GCRYPT, FSIC_HAVE_BOTAN); the report names those left out.
//
// Large data: every implementation hashes the same 256 MiB buffer. The buffer is fed
// in equal segments, one segment per round; in each round every implementation hashes
// its next segment, in an order that rotates from round to round, so that all see the
// machine in the same state. The rate of a round is the segment size over its time;
// the report gives the median over the rounds, and the ratios of this library's median
// to the others'. At the end every implementation has hashed the whole buffer, and the
// digests must agree.
//
// Small messages: whole init/update/final per message, 64-byte and 1 KiB messages
// taken one after another from the buffer.
//
// Many streams: the multi-stream path against the single-stream one and librhash (see
// gost_bench_multi.cpp).
//
// Rates are in MB/s, 1 MB = 10^6 bytes. Nothing here is a pass/fail on speed; with
// --quick (small buffer, few rounds) the program only checks that it runs and that the
// implementations agree, and exits with 1 when they do not.
//
//   fsic-bench-gost [--quick] [--mib N] [--rounds N]

#include <fsic/gost_r3411_94.h>
#ifdef FSIC_HAVE_GCRYPT
#include <gcrypt.h>
#endif
#ifdef FSIC_HAVE_RHASH
#include <rhash.h>
#endif

#ifdef FSIC_HAVE_BOTAN
#include <botan/hash.h>
#endif

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench/gost_bench_multi.h"

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point t) {
  return std::chrono::duration<double>(clock_type::now() - t).count();
}

std::string hex(const uint8_t *p, size_t n) {
  static const char digits[] = "0123456789abcdef";
  std::string s;
  for (size_t i = 0; i < n; ++i) {
    s += digits[p[i] >> 4];
    s += digits[p[i] & 15];
  }
  return s;
}

// One implementation behind a common interface: start(set), update, finish.
class hasher {
public:
  virtual ~hasher() = default;
  virtual const char *name() const = 0;
  virtual bool supports(unsigned set) const = 0;
  virtual void start(unsigned set) = 0;
  virtual void update(const uint8_t *p, size_t n) = 0;
  virtual void finish(uint8_t out[32]) = 0;
};

class fsic_hasher final : public hasher {
public:
  fsic_hasher() : ctx_(gost_r3411_94_create_context()) {
    if (ctx_ == nullptr)
      std::abort();
  }
  ~fsic_hasher() override { gost_r3411_94_free_context(ctx_); }
  const char *name() const override { return "fsic"; }
  bool supports(unsigned) const override { return true; }
  void start(unsigned set) override { gost_r3411_94_init(ctx_, set); }
  void update(const uint8_t *p, size_t n) override {
    // The interface takes an unsigned count.
    while (n != 0) {
      const size_t k = n < (size_t{1} << 30) ? n : size_t{1} << 30;
      gost_r3411_94_update(ctx_, p, unsigned(k));
      p += k;
      n -= k;
    }
  }
  void finish(uint8_t out[32]) override { gost_r3411_94_final(ctx_, out); }

private:
  gost_r3411_94_ctx *ctx_;
};

#ifdef FSIC_HAVE_RHASH
class rhash_hasher final : public hasher {
public:
  ~rhash_hasher() override {
    if (ctx_ != nullptr)
      rhash_free(ctx_);
  }
  const char *name() const override { return "librhash"; }
  bool supports(unsigned) const override { return true; }
  void start(unsigned set) override {
    const unsigned id = set == 0 ? RHASH_GOST94 : RHASH_GOST94_CRYPTOPRO;
    if (ctx_ != nullptr && id == id_) {
      rhash_reset(ctx_);
      return;
    }
    if (ctx_ != nullptr)
      rhash_free(ctx_);
    ctx_ = rhash_init(id);
    id_ = id;
    if (ctx_ == nullptr)
      std::abort();
  }
  void update(const uint8_t *p, size_t n) override { rhash_update(ctx_, p, n); }
  void finish(uint8_t out[32]) override { rhash_final(ctx_, out); }

private:
  rhash ctx_ = nullptr;
  unsigned id_ = 0;
};
#endif

#ifdef FSIC_HAVE_GCRYPT
class gcrypt_hasher final : public hasher {
public:
  ~gcrypt_hasher() override {
    if (h_ != nullptr)
      gcry_md_close(h_);
  }
  const char *name() const override { return "libgcrypt"; }
  bool supports(unsigned) const override { return true; }
  void start(unsigned set) override {
    const int algo = set == 0 ? GCRY_MD_GOSTR3411_94 : GCRY_MD_GOSTR3411_CP;
    if (h_ != nullptr && algo == algo_) {
      gcry_md_reset(h_);
      return;
    }
    if (h_ != nullptr)
      gcry_md_close(h_);
    if (gcry_md_open(&h_, algo, 0) != 0)
      std::abort();
    algo_ = algo;
  }
  void update(const uint8_t *p, size_t n) override { gcry_md_write(h_, p, n); }
  void finish(uint8_t out[32]) override { std::memcpy(out, gcry_md_read(h_, algo_), 32); }

private:
  gcry_md_hd_t h_ = nullptr;
  int algo_ = 0;
};
#endif

#ifdef FSIC_HAVE_BOTAN
// Botan's GOST 34.11 has the CryptoPro parameter set only.
class botan_hasher final : public hasher {
public:
  botan_hasher() : h_(Botan::HashFunction::create_or_throw("GOST-34.11")) {}
  const char *name() const override { return "Botan"; }
  bool supports(unsigned set) const override { return set == 1; }
  void start(unsigned) override { h_->clear(); }
  void update(const uint8_t *p, size_t n) override { h_->update(p, n); }
  void finish(uint8_t out[32]) override { h_->final(out); }

private:
  std::unique_ptr<Botan::HashFunction> h_;
};
#endif

using bench::median;

struct options {
  bool quick = false;
  size_t mib = 256;
  unsigned rounds = 8;
};

bool failed = false;

// Large data: every implementation hashes the first `bytes` of the buffer, in `rounds`
// segments. Returns the medians, in the order of `hs`.
std::vector<double> large(const std::vector<hasher *> &hs, unsigned set, const uint8_t *buf,
                          size_t bytes, unsigned rounds) {
  const size_t segment = bytes / rounds;
  std::vector<std::vector<double>> rates(hs.size());
  for (hasher *h : hs)
    h->start(set);
  for (unsigned r = 0; r < rounds; ++r) {
    const uint8_t *p = buf + size_t(r) * segment;
    const size_t n = r + 1 == rounds ? bytes - size_t(r) * segment : segment;
    for (size_t j = 0; j < hs.size(); ++j) {
      const size_t i = (j + r) % hs.size(); // rotating order
      const auto t = clock_type::now();
      hs[i]->update(p, n);
      rates[i].push_back(double(n) / seconds_since(t) / 1e6);
    }
  }
  std::vector<uint8_t> first(32), out(32);
  std::vector<double> medians;
  for (size_t i = 0; i < hs.size(); ++i) {
    hs[i]->finish(i == 0 ? first.data() : out.data());
    if (i != 0 && out != first) {
      std::printf("  DIGEST MISMATCH: %s gives %s, %s gives %s\n", hs[i]->name(),
                  hex(out.data(), 32).c_str(), hs[0]->name(), hex(first.data(), 32).c_str());
      failed = true;
    }
    medians.push_back(median(rates[i]));
    const auto [lo, hi] = std::minmax_element(rates[i].begin(), rates[i].end());
    std::printf("  %-10s %8.1f MB/s   (rounds: min %.1f, max %.1f)", hs[i]->name(), medians[i], *lo,
                *hi);
    if (i != 0)
      std::printf("   fsic/%s = %.2fx", hs[i]->name(), medians[0] / medians[i]);
    std::printf("\n");
  }
  std::printf("  digest of the data (all agree%s): %s\n", failed ? " NOT" : "",
              hex(first.data(), 32).c_str());
  return medians;
}

// Small messages: messages of `size` bytes taken one after another from the buffer,
// whole init/update/final each, for about `budget` seconds per implementation and
// round.
void small(const std::vector<hasher *> &hs, unsigned set, const uint8_t *buf, size_t bytes,
           size_t size, unsigned rounds, double budget) {
  std::vector<std::vector<double>> rates(hs.size());
  const size_t count = bytes / size;
  for (unsigned r = 0; r < rounds; ++r) {
    for (size_t j = 0; j < hs.size(); ++j) {
      const size_t i = (j + r) % hs.size();
      uint8_t out[32];
      size_t done = 0;
      const auto t = clock_type::now();
      double elapsed = 0;
      do {
        for (int k = 0; k < 256; ++k, ++done) {
          hs[i]->start(set);
          hs[i]->update(buf + (done % count) * size, size);
          hs[i]->finish(out);
        }
        elapsed = seconds_since(t);
      } while (elapsed < budget);
      rates[i].push_back(double(done * size) / elapsed / 1e6);
    }
  }
  // The implementations must agree on these messages too.
  std::vector<uint8_t> first(32), out(32);
  for (size_t m = 0; m < 16 && m < count; ++m) {
    for (size_t i = 0; i < hs.size(); ++i) {
      hs[i]->start(set);
      hs[i]->update(buf + m * size, size);
      hs[i]->finish(i == 0 ? first.data() : out.data());
      if (i != 0 && out != first) {
        std::printf("  DIGEST MISMATCH on a %zu-byte message: %s\n", size, hs[i]->name());
        failed = true;
      }
    }
  }
  const double m0 = median(rates[0]);
  for (size_t i = 0; i < hs.size(); ++i) {
    const double mi = median(rates[i]);
    std::printf("  %-10s %8.1f MB/s  %10.0f messages/s", hs[i]->name(), mi,
                mi * 1e6 / double(size));
    if (i != 0)
      std::printf("   fsic/%s = %.2fx", hs[i]->name(), m0 / mi);
    std::printf("\n");
  }
}

// The published digests of "abc", as a check that every implementation is the
// expected function with the expected parameter set.
void check_abc(const std::vector<hasher *> &hs) {
  static const char *const abc[2] = {
      "f3134348c44fb1b2a277729e2285ebb5cb5e0f29c975bc753b70497c06a4d51d",
      "b285056dbf18d7392d7677369524dd14747459ed8143997e163b2986f92fd42c"};
  for (unsigned set = 0; set < 2; ++set) {
    for (hasher *h : hs) {
      if (!h->supports(set))
        continue;
      uint8_t out[32];
      h->start(set);
      h->update(reinterpret_cast<const uint8_t *>("abc"), 3);
      h->finish(out);
      if (hex(out, 32) != abc[set]) {
        std::printf("%s, parameter set %u: \"abc\" gives %s\n", h->name(), set,
                    hex(out, 32).c_str());
        failed = true;
      }
    }
  }
}

bool parse(int argc, char **argv, options &o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--quick") {
      o.quick = true;
      o.mib = 4;
      o.rounds = 2;
    } else if (a == "--mib" && i + 1 < argc) {
      o.mib = std::strtoul(argv[++i], nullptr, 10);
    } else if (a == "--rounds" && i + 1 < argc) {
      o.rounds = unsigned(std::strtoul(argv[++i], nullptr, 10));
    } else {
      return false;
    }
  }
  return o.mib > 0 && o.rounds > 0;
}

} // namespace

int main(int argc, char **argv) {
  options o;
  if (!parse(argc, argv, o)) {
    std::fprintf(stderr, "usage: %s [--quick] [--mib N] [--rounds N]\n", argv[0]);
    return 2;
  }
  const auto t_start = clock_type::now();
#ifdef FSIC_HAVE_GCRYPT
  if (gcry_check_version(GCRYPT_VERSION) == nullptr)
    return 1;
  gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
  gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
#endif
#ifdef FSIC_HAVE_RHASH
  rhash_library_init();
#endif

  const size_t bytes = o.mib << 20;
  std::vector<uint8_t> buffer(bytes);
  uint64_t x = 0x9e3779b97f4a7c15ull; // xorshift64*
  for (size_t i = 0; i < bytes; i += 8) {
    x ^= x >> 12;
    x ^= x << 25;
    x ^= x >> 27;
    const uint64_t v = x * 0x2545f4914f6cdd1dull;
    std::memcpy(buffer.data() + i, &v, bytes - i < 8 ? bytes - i : 8);
  }

  fsic_hasher f;
  std::vector<hasher *> all = {&f};
  std::string left_out;
#ifdef FSIC_HAVE_RHASH
  rhash_hasher r;
  all.push_back(&r);
#else
  left_out += " librhash";
#endif
#ifdef FSIC_HAVE_GCRYPT
  gcrypt_hasher g;
  all.push_back(&g);
#else
  left_out += " libgcrypt";
#endif
#ifdef FSIC_HAVE_BOTAN
  botan_hasher b;
  all.push_back(&b);
#else
  left_out += " Botan";
#endif
  std::vector<hasher *> set0; // those with the test set (Botan has not)
  for (hasher *h : all) {
    if (h->supports(0))
      set0.push_back(h);
  }
  check_abc(all);

  std::printf("GOST R 34.11-94, MB/s = 10^6 bytes/s, medians over rounds%s\n",
              o.quick ? " (quick mode: figures not meaningful)" : "");
  if (!left_out.empty()) {
    std::printf("Peers not found at build time, left out:%s\n", left_out.c_str());
  }
  std::printf(
      "\nParameter set 1 (CryptoPro), %zu MiB buffer, %u rounds of %zu MiB, rotating order:\n",
      o.mib, o.rounds, o.mib / o.rounds);
  large(all, 1, buffer.data(), bytes, o.rounds);

  // The test set on a quarter of the buffer, to keep the run short.
  const size_t bytes0 = std::max<size_t>(bytes / 4, size_t{1} << 20);
  const unsigned rounds0 = std::max(1u, o.rounds / 2);
  std::printf("\nParameter set 0 (test set), first %zu MiB of the buffer, %u rounds:\n",
              bytes0 >> 20, rounds0);
  large(set0, 0, buffer.data(), bytes0, rounds0);

  const unsigned small_rounds = o.quick ? 1 : 5;
  const double budget = o.quick ? 0.002 : 0.05;
  for (size_t size : {size_t{64}, size_t{1024}}) {
    std::printf("\n%zu-byte messages, parameter set 1, init/update/final each, %u rounds:\n", size,
                small_rounds);
    small(all, 1, buffer.data(), bytes, size, small_rounds, budget);
  }
  std::printf("\n1 KiB messages, parameter set 0, %u rounds:\n", small_rounds);
  small(set0, 0, buffer.data(), bytes, 1024, small_rounds, budget);

  std::vector<bench::stream_peer> peers;
#ifdef FSIC_HAVE_RHASH
  peers.push_back({"librhash", [](const uint8_t *p, size_t n, uint8_t out[32]) {
                     rhash_msg(RHASH_GOST94_CRYPTOPRO, p, n, out);
                   }});
#endif
  if (!bench::multi_stream_rows(buffer.data(), bytes, o.quick, peers))
    failed = true;

  std::printf("\n%s in %.1f s\n", failed ? "FAILED: the implementations disagree" : "done",
              seconds_since(t_start));
  return failed ? 1 : 0;
}
