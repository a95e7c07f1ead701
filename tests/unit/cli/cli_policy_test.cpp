// The policy parser: the documented example, every word, and every syntax error with
// the line it names.
#include <gtest/gtest.h>

#include <fsic/ocl.h>

#include "cli/policy.h"
#include "tests/support/files.h"
#include "tests/support/temp_dir.h"

namespace {

using fsic::cli::parse_policy;
using fsic::cli::policy;
using fsic::cli::selector_kind;

policy parse_ok(const std::string &text) {
  policy p;
  int line = 0;
  std::string error;
  EXPECT_TRUE(parse_policy(text, &p, &line, &error)) << "line " << line << ": " << error;
  return p;
}

TEST(Policy, TheExampleParsesIntoItsImagesSectionsAndObjects) {
  policy p = parse_ok(
      "image win part:VIRTIO-SER-1:1 /images/win.img     # attach an image that lies on a "
      "volume\n"
      "[part:VIRTIO-SER-1:5]                             # the volume for the lines below\n"
      "file /boot/vmlinuz data attrs\n"
      "dir  /etc         each-file recursive data attrs mask=*.conf mask=*.sh\n"
      "dir  /usr/bin     recursive data attrs              # one hash over the whole directory\n"
      "[image:win:1]\n"
      "dir  /WINDOWS/system32 each-file data attrs mask=*.dll mask=*.exe\n"
      "[mount:/]\n"
      "dir \"/srv/my files\" each-file recursive data attrs\n");
  ASSERT_EQ(p.images.size(), 1u);
  EXPECT_EQ(p.images[0].line, 1);
  EXPECT_EQ(p.images[0].name, "win");
  EXPECT_EQ(p.images[0].volume.kind, selector_kind::part);
  EXPECT_EQ(p.images[0].volume.first, "VIRTIO-SER-1");
  EXPECT_EQ(p.images[0].volume.number, 1u);
  EXPECT_EQ(p.images[0].path, "/images/win.img");
  ASSERT_EQ(p.sections.size(), 3u);
  const auto &s0 = p.sections[0];
  EXPECT_EQ(s0.line, 2);
  EXPECT_EQ(s0.volume.number, 5u);
  ASSERT_EQ(s0.objects.size(), 3u);
  EXPECT_FALSE(s0.objects[0].dir);
  EXPECT_EQ(s0.objects[0].path, "/boot/vmlinuz");
  EXPECT_EQ(s0.objects[0].flags, CONTROL_DATA | CONTROL_ATTRS);
  EXPECT_TRUE(s0.objects[1].dir);
  EXPECT_EQ(s0.objects[1].flags, EACH_FILE | RECURSIVE | CONTROL_DATA | CONTROL_ATTRS);
  EXPECT_EQ(s0.objects[1].masks, (std::vector<std::string>{"*.conf", "*.sh"}));
  EXPECT_EQ(s0.objects[2].flags, RECURSIVE | CONTROL_DATA | CONTROL_ATTRS);
  EXPECT_TRUE(s0.objects[2].masks.empty());
  EXPECT_EQ(p.sections[1].volume.kind, selector_kind::image);
  EXPECT_EQ(p.sections[1].volume.first, "win");
  EXPECT_EQ(p.sections[1].objects[0].line, 7);
  EXPECT_EQ(p.sections[2].volume.kind, selector_kind::mount);
  EXPECT_EQ(p.sections[2].volume.first, "/");
  EXPECT_EQ(p.sections[2].objects[0].path, "/srv/my files");
}

TEST(Policy, QuotesTakeEscapesAndJoinWithTheRestOfTheirToken) {
  policy p = parse_ok("[lvm:vg0/root]\n"
                      "dir \"/a \\\"b\\\" \\\\c\" mask=\"my *.txt\" data\n"
                      "file /x\"#not a comment\" attrs\n");
  ASSERT_EQ(p.sections[0].objects.size(), 2u);
  EXPECT_EQ(p.sections[0].objects[0].path, "/a \"b\" \\c");
  EXPECT_EQ(p.sections[0].objects[0].masks, std::vector<std::string>{"my *.txt"});
  EXPECT_EQ(p.sections[0].objects[1].path, "/x#not a comment");
  EXPECT_EQ(p.sections[0].volume.first, "vg0");
  EXPECT_EQ(p.sections[0].volume.second, "root");
}

TEST(Policy, FlagsNumbersAddToTheWordsAndAnObjectWithoutWordsKeepsNone) {
  policy p = parse_ok("[uuid:1234-abcd]\nfile /a flags=12\nfile /b flags=0x1 data\nfile /c\n"
                      "dir /d flags=3\n");
  const auto &o = p.sections[0].objects;
  EXPECT_EQ(o[0].flags, 12u);
  EXPECT_EQ(o[1].flags, 1u | CONTROL_DATA);
  EXPECT_EQ(o[2].flags, 0u);
  EXPECT_EQ(o[3].flags, 3u);
  EXPECT_EQ(p.sections[0].volume.kind, selector_kind::uuid);
}

TEST(Policy, BlankLinesCommentsTabsAndCarriageReturnsAreNothing) {
  policy p = parse_ok("\n   \n# a comment\n\t[dev:/dev/sda1]\t# here\r\n\tfile\t/a\tdata\r\n");
  ASSERT_EQ(p.sections.size(), 1u);
  EXPECT_EQ(p.sections[0].volume.kind, selector_kind::dev);
  EXPECT_EQ(p.sections[0].objects[0].path, "/a");
  EXPECT_EQ(p.sections[0].objects[0].line, 5);
}

TEST(Policy, TheSameSelectorInTwoSectionsIsTwoSectionsAndPathsMayRepeatAcrossThem) {
  policy p = parse_ok("[part:S:1]\nfile /a\n[part:S:1]\nfile /a\n");
  EXPECT_EQ(p.sections.size(), 2u);
}

TEST(Policy, ASectionMayBeOptional) {
  policy p = parse_ok("[mount:/]\nfile /a\n[mount:/boot] optional # when it is a file system\n"
                      "dir /\n");
  ASSERT_EQ(p.sections.size(), 2u);
  EXPECT_FALSE(p.sections[0].optional);
  EXPECT_TRUE(p.sections[1].optional);
  EXPECT_EQ(p.sections[1].volume_text, "mount:/boot");
  EXPECT_EQ(p.sections[1].objects.size(), 1u);
}

TEST(Policy, TheInstalledExampleSelectsTheRunningSystemsVolumes) {
  policy p;
  std::string message;
  ASSERT_TRUE(read_policy(FSIC_EXAMPLE_POLICY, &p, &message)) << message;
  ASSERT_EQ(p.sections.size(), 2u);
  EXPECT_EQ(p.sections[0].volume_text, "mount:/");
  EXPECT_FALSE(p.sections[0].optional);
  std::vector<std::string> paths;
  for (const auto &o : p.sections[0].objects)
    paths.push_back(o.path);
  EXPECT_EQ(paths, (std::vector<std::string>{"/etc/passwd", "/etc/group", "/etc/shadow",
                                             "/etc/gshadow", "/etc/login.defs", "/etc/pam.d",
                                             "/etc/security", "/etc/hosts", "/etc/nsswitch.conf",
                                             "/etc/profile", "/etc/bash.bashrc", "/etc/environment",
                                             "/etc/default", "/usr/bin", "/boot"}));
  EXPECT_EQ(p.sections[1].volume_text, "mount:/boot");
  EXPECT_TRUE(p.sections[1].optional);
  ASSERT_EQ(p.sections[1].objects.size(), 1u);
  EXPECT_EQ(p.sections[1].objects[0].path, "/");
}

TEST(Policy, AnEmptyPolicyHasNothing) {
  policy p = parse_ok("");
  EXPECT_TRUE(p.images.empty());
  EXPECT_TRUE(p.sections.empty());
}

struct bad_case {
  const char *text;
  int line;
  const char *message; // a part of the error
};

class PolicyError : public testing::TestWithParam<bad_case> {};

TEST_P(PolicyError, NamesItsLineAndWhatIsWrong) {
  const bad_case &c = GetParam();
  policy p;
  int line = 0;
  std::string error;
  ASSERT_FALSE(parse_policy(c.text, &p, &line, &error)) << c.text;
  EXPECT_EQ(line, c.line) << error;
  EXPECT_NE(error.find(c.message), std::string::npos) << error;
}

INSTANTIATE_TEST_SUITE_P(
    Every, PolicyError,
    testing::Values(
        bad_case{"file /a data\n", 1, "before the first [VOLUME] line"},
        bad_case{"[part:S:1]\nfile a data\n", 2, "is not absolute"},
        bad_case{"[part:S:1]\nfile /a/../b\n", 2, "component"},
        bad_case{"[part:S:1]\nfile /a/./b\n", 2, "component"},
        bad_case{"[part:S:1]\ndir /a\nfile\n", 3, "expected: file PATH"},
        bad_case{"[part:S:1]\nfile /a each-file\n", 2, "applies to directories only"},
        bad_case{"[part:S:1]\nfile /a recursive\n", 2, "applies to directories only"},
        bad_case{"[part:S:1]\nfile /a mask=*.c\n", 2, "masks apply to directories only"},
        bad_case{"[part:S:1]\ndir /a mask=\n", 2, "an empty mask"},
        bad_case{"[part:S:1]\ndir /a datta\n", 2, "unknown word \"datta\""},
        bad_case{"[part:S:1]\ndir /a flags=x\n", 2, "not flags=NUMBER"},
        bad_case{"[part:S:1]\ndir /a flags=99999999999\n", 2, "not flags=NUMBER"},
        bad_case{"[part:S:1]\ndir /a flags=\n", 2, "not flags=NUMBER"},
        bad_case{"[part:S:1]\nfile /a\nfile /b\nfile /a\n", 4, "already listed on line 2"},
        bad_case{"[part:S:1]\nfile \"/a\n", 2, "not closed"},
        bad_case{"[part:S:1]\nfile \"/a\\n\"\n", 2, "escapes"},
        bad_case{"\n\n[part:S]\n", 3, "NAME:NUMBER"},
        bad_case{"[part:S:x]\n", 1, "partition number"},
        bad_case{"[part:S:65536]\n", 1, "partition number"},
        bad_case{"[part::1]\n", 1, "NAME:NUMBER"}, bad_case{"[image:w]\n", 1, "NAME:NUMBER"},
        bad_case{"[lvm:vg]\n", 1, "lvm:GROUP/VOLUME"},
        bad_case{"[lvm:/lv]\n", 1, "lvm:GROUP/VOLUME"},
        bad_case{"[lvm:vg/]\n", 1, "lvm:GROUP/VOLUME"}, bad_case{"[uuid:]\n", 1, "uuid:FS-UUID"},
        bad_case{"[dev:sda1]\n", 1, "absolute"}, bad_case{"[mount:]\n", 1, "absolute"},
        bad_case{"[disk:1]\n", 1, "a volume is"},
        bad_case{"[part:S:1] file /a\n", 1, "[VOLUME] alone"},
        bad_case{"[part:S:1\n", 1, "[VOLUME] alone"},
        bad_case{"[part:S:1] optinal\n", 1, "[VOLUME] optional"},
        bad_case{"[part:S:1] optional optional\n", 1, "[VOLUME] optional"},
        bad_case{"image w part:S:1\n", 1, "expected: image NAME VOLUME PATH"},
        bad_case{"image w part:S:1 /a.img extra\n", 1, "expected: image NAME VOLUME PATH"},
        bad_case{"image w part:S:1 a.img\n", 1, "is not absolute"},
        bad_case{"image w nowhere /a.img\n", 1, "a volume is"},
        bad_case{"image \"\" part:S:1 /a.img\n", 1, "an empty image name"},
        bad_case{"image w part:S:1 /a.img\nimage w part:S:1 /b.img\n", 2,
                 "already defined on line 1"},
        bad_case{"[part:S:1]\nfiles /a\n", 2, "unknown keyword \"files\""}));

TEST(Policy, ANulByteIsAnError) {
  policy p;
  int line = 0;
  std::string error;
  ASSERT_FALSE(parse_policy(std::string_view("[part:S:1]\nfile /a\0b\n", 21), &p, &line, &error));
  EXPECT_EQ(line, 2);
  EXPECT_NE(error.find("NUL"), std::string::npos);
}

TEST(Policy, AFileErrorNamesTheFileAndTheLine) {
  support::temp_dir dir;
  std::string path = dir.path() + "/policy";
  support::write_file(path, "[part:S:1]\n\nfile /a\nfile /a\n");
  policy p;
  std::string message;
  ASSERT_FALSE(fsic::cli::read_policy(path, &p, &message));
  EXPECT_EQ(message, path + ":4: \"/a\" is already listed on line 3");
  ASSERT_FALSE(fsic::cli::read_policy(dir.path() + "/missing", &p, &message));
  EXPECT_EQ(message, dir.path() + "/missing: No such file or directory");
  ASSERT_FALSE(fsic::cli::read_policy(dir.path(), &p, &message));
  EXPECT_EQ(message, dir.path() + ": Is a directory");
}

} // namespace
