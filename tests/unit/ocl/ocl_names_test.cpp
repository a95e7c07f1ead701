// The rules for object paths and directory-entry names that the blob reader applies and
// that adding objects shares.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fs/ocl_internal.h"

namespace {

bool path_ok(const std::string &path) {
  return _fs_ocl_path_is_valid(path.data(), path.size()) == 1;
}

bool name_ok(const std::string &name) {
  return _fs_ocl_name_is_valid(name.data(), name.size()) == 1;
}

TEST(OclNames, APathBeginsWithASlash) {
  for (const std::string path : {"", "a", "a/b", "../../etc/shadow", "./a", ".", " /a"})
    EXPECT_FALSE(path_ok(path)) << path;
  for (const std::string path : {"/", "/a", "/a/b", "/WINDOWS/explorer.exe"})
    EXPECT_TRUE(path_ok(path)) << path;
}

TEST(OclNames, APathHasNoDotOrDotDotComponent) {
  for (const std::string path :
       {"/.", "/..", "/../../..", "/a/./b", "/a/..", "/a/../b", "/./a", "/a/.", "/a//..", "/../"})
    EXPECT_FALSE(path_ok(path)) << path;
  for (const std::string path :
       {"/...", "/.a", "/a.", "/..a", "/a..", "/a/.../b", "/.hidden/x", "/a//b", "/a/", "//"})
    EXPECT_TRUE(path_ok(path)) << path;
}

TEST(OclNames, APathHasNoNul) {
  EXPECT_FALSE(path_ok(std::string("/a\0b", 4)));
  EXPECT_FALSE(path_ok(std::string("/\0", 2)));
  EXPECT_FALSE(path_ok(std::string("\0/a", 3)));
  // Only the given length counts: a NUL after it is not part of the path.
  EXPECT_EQ(_fs_ocl_path_is_valid("/a\0b", 2), 1);
  EXPECT_EQ(_fs_ocl_path_is_valid("/a/..", 3), 1);
  EXPECT_EQ(_fs_ocl_path_is_valid("/a/..", 5), 0);
}

TEST(OclNames, ANameIsOneNonEmptyComponent) {
  for (const std::string &name : std::vector<std::string>{
           "", ".", "..", "a/b", "/", "a/", "/a", std::string("a\0b", 3), std::string("\0", 1)})
    EXPECT_FALSE(name_ok(name)) << name;
  for (const std::string name :
       {"a", "...", ".a", "a.", "..a", ".hidden", " ", "\xc3\xa9", "x y", "\\"})
    EXPECT_TRUE(name_ok(name)) << name;
  EXPECT_EQ(_fs_ocl_name_is_valid("a/b", 1), 1);
  EXPECT_EQ(_fs_ocl_name_is_valid("..", 1), 0);
}

} // namespace
