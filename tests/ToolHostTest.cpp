// How the command-line tool makes files.
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "FileTestTools.h"
#include "TestHost.h"
#include "tools/Host.h"

namespace Orvane {
namespace {

class ToolHostTest : public OrvaneTest {};

TEST_F(ToolHostTest, ANewFileIsThereAndEmpty) {
  std::vector<std::string> names = GetOddFileNames();
  names.push_back("plain");
  for (const std::string& name : names) {
    const std::string file = PathOf("new " + name);
    const std::filesystem::path path = OrvaneTool::ToPath(file);
    std::filesystem::remove(path);
    EXPECT_EQ(std::error_code(), OrvaneTool::CreateNewFile(file)) << name;
    EXPECT_TRUE(std::filesystem::is_empty(path)) << name;
    EXPECT_EQ(std::errc::file_exists, OrvaneTool::CreateNewFile(file)) << name;
    EXPECT_TRUE(std::filesystem::remove(path)) << name;
  }
}

// Also one that came between the look for it and the creation.
TEST_F(ToolHostTest, AnExistingFileIsNeitherEmptiedNorRemoved) {
  const TestFile file("existing");
  ASSERT_TRUE(file.FillWithPattern(0, 10000));
  const std::error_code fault = OrvaneTool::CreateNewFile(file.Path());
  EXPECT_EQ(std::errc::file_exists, fault) << fault.message();
  EXPECT_EQ(10000u, file.Size());
  EXPECT_TRUE(file.HasPattern(0, 10000));
}

TEST_F(ToolHostTest, NothingIsMadeInAFolderThatIsNotThere) {
  const std::error_code fault = OrvaneTool::CreateNewFile(PathOf("no-such-folder") + "/file");
  EXPECT_EQ(std::errc::no_such_file_or_directory, fault) << fault.message();
}

}  // namespace
}  // namespace Orvane
