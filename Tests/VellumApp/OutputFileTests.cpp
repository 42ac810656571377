#include "VellumApp/OutputFile.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "Support/TemporaryFolder.hpp"
#include "Support/TextAssertions.hpp"

namespace vellum {
namespace {

namespace fs = std::filesystem;
using test::TemporaryFolder;
using Names = std::vector<std::string>;

constexpr bool replace = true, keep = false;

void writeWhole(const fs::path& path, bool replacesExisting, const std::vector<fs::path>& inputs = {},
                const std::string& text = "new") {
  OutputFile file({path, replacesExisting, inputs});
  file.write(text);
  file.commit();
}

std::string errorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const FileError& error) {
    return error.what();
  }
  return "no error";
}

mode_t modeOf(const fs::path& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

TEST(OutputFile, AppearsWholeAtCommit) {
  const TemporaryFolder folder;
  {
    OutputFile file({folder / "x", keep, {}});
    file.write("one ");
    file.write("");
    file.write(std::string("two\0three", 9));
    EXPECT_FALSE(fs::exists(folder / "x"));
    file.commit();
  }
  EXPECT_EQ(test::readBytes(folder / "x"), std::string("one two\0three", 13));
  EXPECT_EQ(folder.names(), Names{"x"});
}

TEST(OutputFile, LeavesNothingWithoutCommit) {
  const TemporaryFolder folder;
  test::writeBytes(folder / "old", "old");
  {
    OutputFile fresh({folder / "new", keep, {}});
    OutputFile replacement({folder / "old", replace, {}});
    fresh.write("half");
    replacement.write("half");
  }
  EXPECT_EQ(folder.names(), Names{"old"});
  EXPECT_EQ(test::readBytes(folder / "old"), "old");
}

TEST(OutputFile, AnExistingFileIsKeptUnlessItMayBeReplaced) {
  const TemporaryFolder folder;
  test::writeBytes(folder / "x", "old");
  EXPECT_THROW(writeWhole(folder / "x", keep), FileExistsError);
  EXPECT_EQ(test::readBytes(folder / "x"), "old");
  writeWhole(folder / "x", replace);
  EXPECT_EQ(test::readBytes(folder / "x"), "new");
  EXPECT_EQ(folder.names(), Names{"x"});
}

TEST(OutputFile, AFileThatCameMeanwhileIsKeptToo) {
  const TemporaryFolder folder;
  {
    OutputFile file({folder / "x", keep, {}});
    file.write("new");
    test::writeBytes(folder / "x", "somebody else's");
    EXPECT_THROW(file.commit(), FileExistsError);
  }
  EXPECT_EQ(test::readBytes(folder / "x"), "somebody else's");
  EXPECT_EQ(folder.names(), Names{"x"});
}

TEST(OutputFile, AnInputIsNeverReplacedByWhateverName) {
  const TemporaryFolder folder;
  const fs::path input = folder / "input";
  test::writeBytes(input, "precious");
  fs::create_directory(folder / "sub");
  fs::create_symlink("input", folder / "symbolic");
  fs::create_symlink(folder.path(), folder / "sub" / "back");
  fs::create_hard_link(input, folder / "hard");
  for (const fs::path& name : {input, folder / "sub" / ".." / "input", folder / "symbolic",
                               folder / "sub" / "back" / "input", folder / "hard"}) {
    EXPECT_EQ(errorOf([&] { writeWhole(name, replace, {input}); }), "it is one of the files that are read")
        << name;
    EXPECT_EQ(errorOf([&] {
                writeWhole(input, replace, {folder / "other", name});
              }),
              "it is one of the files that are read")
        << name;
  }
  EXPECT_EQ(test::readBytes(input), "precious");
}

TEST(OutputFile, ASymbolicLinkIsFollowedAndStays) {
  const TemporaryFolder folder;
  fs::create_directory(folder / "real");
  test::writeBytes(folder / "real" / "x", "old");
  fs::create_symlink("real/x", folder / "link");
  fs::create_symlink("link", folder / "link2");
  EXPECT_THROW(writeWhole(folder / "link2", keep), FileExistsError);
  writeWhole(folder / "link2", replace);
  EXPECT_TRUE(fs::is_symlink(folder / "link"));
  EXPECT_TRUE(fs::is_symlink(folder / "link2"));
  EXPECT_EQ(test::readBytes(folder / "real" / "x"), "new");
}

TEST(OutputFile, ALinkToNothingMakesTheFileThatItNames) {
  const TemporaryFolder folder;
  fs::create_directory(folder / "real");
  fs::create_symlink(folder / "real" / "x", folder / "link");
  writeWhole(folder / "link", keep);
  EXPECT_TRUE(fs::is_symlink(folder / "link"));
  EXPECT_EQ(test::readBytes(folder / "real" / "x"), "new");
}

TEST(OutputFile, LinksInACircleAreAnError) {
  const TemporaryFolder folder;
  fs::create_symlink("b", folder / "a");
  fs::create_symlink("a", folder / "b");
  EXPECT_TRUE(
      test::startsWith(errorOf([&] { writeWhole(folder / "a", replace); }), "it cannot be written: "));
}

TEST(OutputFile, ANewFileHasThePermissionsOfTheMaskAndAReplacedOneKeepsItsOwn) {
  const TemporaryFolder folder;
  const mode_t before = ::umask(027);
  writeWhole(folder / "x", keep);
  ::umask(before);
  EXPECT_EQ(modeOf(folder / "x"), 0640u);
  fs::permissions(folder / "x", fs::perms::owner_read | fs::perms::owner_write);
  writeWhole(folder / "x", replace);
  EXPECT_EQ(modeOf(folder / "x"), 0600u);
}

TEST(OutputFile, PlacesThatCannotHoldAFileAreToldPlainly) {
  const TemporaryFolder folder;
  fs::create_directory(folder / "sub");
  ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
  EXPECT_EQ(errorOf([&] { writeWhole(folder / "sub", replace); }), "it is a directory");
  EXPECT_EQ(errorOf([&] { writeWhole(folder / "missing" / "x", keep); }), "its folder does not exist");
  EXPECT_EQ(errorOf([&] { writeWhole(folder / "pipe", replace); }), "it is not a regular file");
  EXPECT_EQ(errorOf([&] { writeWhole("/dev/null", replace); }), "it is not a regular file");
  EXPECT_EQ(folder.names(), (Names{"pipe", "sub"}));
}

TEST(OutputFile, AFolderOrAFileThatMayNotBeWrittenIsToldPlainly) {
  if (::geteuid() == 0) GTEST_SKIP() << "root may write everywhere";
  const TemporaryFolder folder;
  test::writeBytes(folder / "x", "old");
  fs::permissions(folder / "x", fs::perms::owner_read);
  EXPECT_EQ(errorOf([&] { writeWhole(folder / "x", replace); }), "no permission to write it");
  fs::permissions(folder.path(), fs::perms::owner_read | fs::perms::owner_exec);
  EXPECT_EQ(errorOf([&] { writeWhole(folder / "y", keep); }), "no permission to write it");
  fs::permissions(folder.path(), fs::perms::owner_all);
}

// A limit on the size of files stands in for a full disk.
TEST(OutputFile, AWriteThatFailsLeavesNothing) {
  const TemporaryFolder folder;
  test::writeBytes(folder / "old", "old");
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto handler = ::signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{1000, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  const std::string fresh = errorOf([&] { writeWhole(folder / "new", keep, {}, std::string(5000, 'x')); });
  const std::string replaced =
      errorOf([&] { writeWhole(folder / "old", replace, {}, std::string(5000, 'x')); });
  ::setrlimit(RLIMIT_FSIZE, &before);
  ::signal(SIGXFSZ, handler);
  EXPECT_TRUE(test::startsWith(fresh, "it cannot be written: "));
  EXPECT_TRUE(test::startsWith(replaced, "it cannot be written: "));
  EXPECT_EQ(folder.names(), Names{"old"});
  EXPECT_EQ(test::readBytes(folder / "old"), "old");
}

TEST(OutputFile, BytesAreWrittenOverOnesThatStandThere) {
  const TemporaryFolder folder;
  OutputFile file({folder / "x", keep, {}});
  file.write("0123456789");
  file.writeAt(2, "ab");
  file.writeAt(9, "XY");    // over the end
  file.writeAt(13, "end");  // and behind it
  file.commit();
  EXPECT_EQ(test::readBytes(folder / "x"), std::string("01ab45678XY\0\0end", 16));
}

TEST(OutputFile, WritingGoesOnWhereItWas) {
  const TemporaryFolder folder;
  OutputFile file({folder / "x", keep, {}});
  file.write("0123");
  file.writeAt(0, "ab");
  file.write("45");
  file.commit();
  EXPECT_EQ(test::readBytes(folder / "x"), "ab2345");
}

TEST(OutputFile, CanBeReadBeforeItHasItsName) {
  const TemporaryFolder folder;
  OutputFile file({folder / "x", keep, {}});
  file.write("text");
  EXPECT_EQ(test::readBytes(file.temporaryPath()), "text");
  EXPECT_FALSE(fs::exists(folder / "x"));
}

TEST(OutputFile, TooLittleSpaceIsToldInSizesForPeople) {
  const TemporaryFolder folder;
  const OutputFile file({folder / "x", keep, {}});
  EXPECT_EQ(errorOf([&] { file.requireSpace(0); }), "no error");
  EXPECT_EQ(errorOf([&] { file.requireSpace(1000); }), "no error");
  const std::string error = errorOf([&] { file.requireSpace(4'200'000'000'000'000'000); });
  EXPECT_TRUE(test::startsWith(error, "there is too little space for it: it needs 4200000 TB, and "));
  EXPECT_EQ(error.substr(error.size() - 9), " are free");
}

TEST(OutputFile, AKilledProcessLeavesNothing) {
  const TemporaryFolder folder;
  test::writeBytes(folder / "old", "old");
  int pipeEnds[2];
  ASSERT_EQ(::pipe(pipeEnds), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    OutputFile fresh({folder / "new", keep, {}});
    OutputFile replacement({folder / "old", replace, {}});
    fresh.write("half");
    replacement.write("half");
    if (::write(pipeEnds[1], "x", 1) != 1) ::_exit(1);
    ::pause();
  }
  char isUnderWay = 0;
  ASSERT_EQ(::read(pipeEnds[0], &isUnderWay, 1), 1);
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  ::close(pipeEnds[0]);
  ::close(pipeEnds[1]);
  EXPECT_EQ(test::readBytes(folder / "old"), "old");
  if (folder.names() != Names{"old"}) GTEST_SKIP() << "this file system has no files without a name";
  EXPECT_EQ(folder.names(), Names{"old"});
}

}  // namespace
}  // namespace vellum
