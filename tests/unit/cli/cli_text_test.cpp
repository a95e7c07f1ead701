// JSON string escaping and volume names: identifiers to names and names back.
#include <gtest/gtest.h>

#include "cli/json.h"
#include "cli/volume_name.h"
#include "tests/unit/icl/icl_test_util.h"

namespace {

using namespace fsic::cli;

TEST(Json, StringsAreEscapedAndBytesThatAreNotUtf8KeptAsLowSurrogates) {
  EXPECT_EQ(json_quote("plain"), "\"plain\"");
  EXPECT_EQ(json_quote("a\"b\\c\n\t\r\x01\x7f"), "\"a\\\"b\\\\c\\n\\t\\r\\u0001\\u007f\"");
  EXPECT_EQ(json_quote("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"),
            "\"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\"");
  EXPECT_EQ(json_quote("\xff"), "\"\\udcff\"");
  EXPECT_EQ(json_quote("\xc3"), "\"\\udcc3\"");                                  // cut short
  EXPECT_EQ(json_quote("\xc0\xaf"), "\"\\udcc0\\udcaf\"");                       // overlong
  EXPECT_EQ(json_quote("\xed\xa0\x80"), "\"\\udced\\udca0\\udc80\"");            // a surrogate
  EXPECT_EQ(json_quote("\xf4\x90\x80\x80"), "\"\\udcf4\\udc90\\udc80\\udc80\""); // > U+10FFFF
  EXPECT_EQ(json_quote(std::string_view("a\0b", 3)), "\"a\\u0000b\"");
}

TEST(Json, TheWriterPutsCommasAndColons) {
  std::string out;
  json_writer j(&out);
  j.begin_object();
  j.key("a");
  j.begin_array();
  j.number(uint64_t{1});
  j.null();
  j.boolean(true);
  j.begin_object();
  j.end_object();
  j.end_array();
  j.key("b");
  j.number(0.25, 3);
  j.key("c");
  j.string("x");
  j.end_object();
  EXPECT_EQ(out, "{\"a\": [1, null, true, {}], \"b\": 0.250, \"c\": \"x\"}");
}

TEST(VolumeName, EveryKindOfIdentifierHasItsName) {
  EXPECT_EQ(volume_name(icltest::partition_id("VIRTIO-SER-1", 5).get()), "part:VIRTIO-SER-1:5");
  EXPECT_EQ(volume_name(icltest::partition_id("S", 0).get()), "part:S:0");
  EXPECT_EQ(volume_name(icltest::image_id("win", 1).get()), "image:win:1");
  EXPECT_EQ(volume_name(icltest::lvm_id("vg0", "root").get()), "lvm:vg0/root");
  fs_volume_id *id = nullptr;
  ASSERT_EQ(fs_uuid_volume_id_create("1b2c-3d", &id), FSIC_OK);
  volume_id_ptr owner(id);
  EXPECT_EQ(volume_name(id), "uuid:1b2c-3d");
}

TEST(VolumeName, NamesParseBackIntoEqualIdentifiers) {
  for (const char *name :
       {"part:VIRTIO-SER-1:5", "part:with:colons:12", "image:win:1", "lvm:vg0/root",
        "lvm:vg/with/slash", "uuid:1b2c-3d", "part:S:0", "part:S:65535"}) {
    selector sel;
    std::string why;
    ASSERT_TRUE(parse_selector(name, &sel, &why)) << name << ": " << why;
    volume_id_ptr id;
    ASSERT_EQ(selector_id(sel, &id), FSIC_OK) << name;
    EXPECT_EQ(volume_name(id.get()), name);
  }
}

TEST(VolumeName, DevAndMountSelectorsNameNoIdentifier) {
  selector sel;
  std::string why;
  ASSERT_TRUE(parse_selector("dev:/dev/sda1", &sel, &why));
  EXPECT_EQ(sel.kind, selector_kind::dev);
  volume_id_ptr id;
  EXPECT_EQ(selector_id(sel, &id), FSIC_ERR_FAILED);
  ASSERT_TRUE(parse_selector("mount:/home", &sel, &why));
  EXPECT_EQ(sel.kind, selector_kind::mount);
  EXPECT_EQ(sel.first, "/home");
}

TEST(VolumeName, BadNamesAreRefused) {
  for (const char *name :
       {"",          "part:",        "part:S",        "part:S:", "part::1",  "part:S:-1",
        "part:S:1x", "part:S:65536", "part:S:123456", "image:",  "image:w:", "lvm:",
        "lvm:vg",    "lvm:/v",       "lvm:vg/",       "uuid:",   "dev:",     "dev:x",
        "mount:",    "mount:x",      "PART:S:1",      "sda1"}) {
    selector sel;
    std::string why;
    EXPECT_FALSE(parse_selector(name, &sel, &why)) << name;
    EXPECT_FALSE(why.empty()) << name;
  }
}

} // namespace
