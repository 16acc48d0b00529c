#include "platform/files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>

#include "support/temp_dir.h"

namespace kova::test {
namespace {

TEST(PathInside, ComparesWholeComponentsOfNormalisedAbsolutePaths) {
  char cwd[PATH_MAX];
  ASSERT_NE(::getcwd(cwd, sizeof cwd), nullptr);
  const struct { std::string path, root; bool inside; } cases[] = {
      {"/opt/kova", "/opt/kova", true},
      {"/opt/kova/bin/x", "/opt/kova", true},
      {"/opt/./kova//bin/", "/opt/kova/", true},
      {"/../../opt/kova/x", "/opt/kova", true},
      {"/opt/kova2", "/opt/kova", false},
      {"/opt", "/opt/kova", false},
      {"/opt/kova/../other", "/opt/kova", false},
      {"/opt/kova/bin/../..", "/opt/kova", false},
      {"/anything/at/all", "/", true},
      {"bin/x", cwd, true},
      {"", "/opt", false},
      {"/opt", "", false},
  };
  for (const auto& c : cases) EXPECT_EQ(path_inside(c.path, c.root), c.inside) << c.path << " in " << c.root;
}

TEST(ResolvedPath, FollowsLinksAsFarAsThePathExistsAndNormalisesTheRest) {
  TempDir dir;
  char real[PATH_MAX];
  ASSERT_NE(::realpath(dir.path().c_str(), real), nullptr);
  const std::string root = real;
  make_dirs(root + "/d/sub");
  ASSERT_EQ(::symlink("d/sub", (root + "/l").c_str()), 0);
  const struct { std::string path, resolved; } cases[] = {
      {dir / "l", root + "/d/sub"},
      {dir / "l/..", root + "/d"},  // the link's parent, not the tree's
      {dir / "l/new/../file", root + "/d/sub/file"},
      {dir / "missing/./x/../y", root + "/missing/y"},
      {"/no_such_kova_dir/a/../b", "/no_such_kova_dir/b"},
  };
  for (const auto& c : cases) EXPECT_EQ(resolved_path(c.path), c.resolved) << c.path;
}

TEST(CopyFileExclusive, CopiesBytesAndModeOnlyToANewName) {
  TempDir dir;
  write_file(dir / "from", std::string(10000, 'c'));
  ASSERT_EQ(::chmod((dir / "from").c_str(), 0640), 0);
  EXPECT_EQ(copy_file_exclusive(dir / "from", dir / "to"), 0);
  EXPECT_EQ(read_file(dir / "to"), std::string(10000, 'c'));
  struct stat st {};
  ASSERT_EQ(::stat((dir / "to").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  write_file(dir / "from", "changed");
  EXPECT_EQ(copy_file_exclusive(dir / "from", dir / "to"), EEXIST);
  EXPECT_EQ(read_file(dir / "to"), std::string(10000, 'c'));
  EXPECT_EQ(copy_file_exclusive(dir / "absent", dir / "other"), ENOENT);
}

}  // namespace
}  // namespace kova::test
