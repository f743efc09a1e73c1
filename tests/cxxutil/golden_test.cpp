// Bad files with what is said about them: each golden/NAME.cfg with its golden/NAME.expected.
#include <algorithm>

#include "cxxutil/reading.h"
#include "libcxxutil/ut_options_database.h"

namespace {

namespace fs = std::filesystem;

const fs::path kDirectory = fs::path(__FILE__).parent_path() / "golden";

std::vector<fs::path> goldenFiles() {
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(kDirectory))
    if (entry.path().extension() == ".cfg") files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

class GoldenTest : public testing::TestWithParam<fs::path> {};

TEST_P(GoldenTest, SaysWhatIsExpected) {
  const Scratch scratch;
  fs::copy(kDirectory, scratch.path(), fs::copy_options::recursive);
  ut_options_database options("golden");
  bool read = false;
  std::string said = reported(
      scratch, [&] { read = options.read((scratch / GetParam().filename().string()).c_str()); });
  said += read ? "read\n" : "refused\n";
  EXPECT_EQ(said, contents(fs::path(GetParam()).replace_extension(".expected").string()));
}

INSTANTIATE_TEST_SUITE_P(Files, GoldenTest, testing::ValuesIn(goldenFiles()),
                         [](const auto& file) { return file.param.stem().string(); });

}  // namespace
