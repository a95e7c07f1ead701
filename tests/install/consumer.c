/* A C program built against the installed SDK: uses the public headers and links the
 * library through pkg-config or the CMake package. Exits 0 when the library answers
 * as expected. */
#include <fsic/fsic.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int check_hash(void) {
  /* Digest of "abc" with the CryptoPro parameter set, word 0 first. */
  static const char expected[] = "b285056dbf18d7392d7677369524dd14747459ed8143997e163b2986f92fd42c";
  uint8_t digest[GOST_R3411_94_DIGEST_SIZE];
  char hex[2 * GOST_R3411_94_DIGEST_SIZE + 1];
  gost_r3411_94_ctx *ctx = gost_r3411_94_create_context();
  if (!ctx)
    return 1;
  gost_r3411_94_init(ctx, 1);
  gost_r3411_94_update(ctx, "abc", 3);
  gost_r3411_94_final(ctx, digest);
  gost_r3411_94_free_context(ctx);
  for (int i = 0; i < GOST_R3411_94_DIGEST_SIZE; i++)
    snprintf(hex + 2 * i, 3, "%02x", digest[i]);
  if (strcmp(hex, expected) != 0) {
    fprintf(stderr, "hash: %s\n", hex);
    return 1;
  }
  return 0;
}

static int check_buffers(void) {
  wb w;
  rb r;
  uint16_t kind = 0;
  uint32_t value = 0;
  char *text = NULL;
  int bad;
  if (wb_init(&w, 0) != FSIC_OK)
    return 1;
  if (wb_write_uint16(&w, 2) || wb_write_str(&w, "vg") || wb_write_uint32(&w, 16909060)) {
    wb_finalize(&w, 1);
    return 1;
  }
  uint32_t size = w.used;
  uint8_t *blob = wb_finalize(&w, 0);
  rb_init(&r, blob, size);
  bad = rb_read_uint16(&r, &kind) || rb_read_and_alloc_zstr(&r, &text) ||
        rb_read_uint32(&r, &value) || kind != 2 || strcmp(text, "vg") != 0 || value != 16909060 ||
        size != 10;
  free(text);
  rb_finalize(&r, 1);
  return bad;
}

static int check_util(void) {
  char *joined = ic_util_dupstrs("/sys", "/class", "/block", (char *)NULL);
  char **masks = ic_str_zarray_create("*.dll", "*.exe", (char *)NULL);
  int bad =
      !joined || !masks || strcmp(joined, "/sys/class/block") != 0 || ic_str_zarray_len(masks) != 2;
  free(joined);
  if (masks)
    ic_str_zarray_destroy(masks);
  return bad;
}

int main(void) {
  int failures = check_hash() + check_buffers() + check_util();
  if (failures) {
    fprintf(stderr, "consumer: %d check(s) failed\n", failures);
    return 1;
  }
  puts("consumer: ok");
  return 0;
}
