// main() of every test binary: GoogleTest, plus a record of each case's result
// written the moment the case ends, to the file named by NERVA_TEST_RESULTS.
// run_binary.sh reads it to report every case to CTest, and to find the case
// in which the binary died, if it did.
//
// One line per event, "<case>\t<kind>\t<text>": START, MSG (one per line of a
// failure message), then PASS, FAIL or SKIP; a line "\tEND\t" when the run completes.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

namespace {

class ResultRecorder : public ::testing::EmptyTestEventListener {
 public:
  explicit ResultRecorder(std::FILE* file) : file_(file) {}

  void OnTestStart(const ::testing::TestInfo& info) override { Write(Name(info), "START", ""); }

  void OnTestPartResult(const ::testing::TestPartResult& part) override {
    if (!part.failed() || current_.empty()) return;
    std::ostringstream text;
    text << (part.file_name() ? part.file_name() : "unknown file") << ":" << part.line_number()
         << ": Failure\n"
         << part.message();
    std::istringstream lines(text.str());
    for (std::string line; std::getline(lines, line);) Write(current_, "MSG", line);
  }

  void OnTestEnd(const ::testing::TestInfo& info) override {
    const ::testing::TestResult* result = info.result();
    Write(Name(info), result->Skipped() ? "SKIP" : result->Failed() ? "FAIL" : "PASS", "");
    current_.clear();
  }

  void OnTestProgramEnd(const ::testing::UnitTest&) override { Write("", "END", ""); }

 private:
  std::string Name(const ::testing::TestInfo& info) {
    current_ = std::string(info.test_suite_name()) + "." + info.name();
    return current_;
  }

  void Write(const std::string& name, const char* kind, const std::string& text) {
    std::fprintf(file_, "%s\t%s\t%s\n", name.c_str(), kind, text.c_str());
    std::fflush(file_);
  }

  std::FILE* file_;
  std::string current_;
};

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (const char* path = std::getenv("NERVA_TEST_RESULTS")) {
    std::FILE* file = std::fopen(path, "a");
    if (file == nullptr) {
      std::perror(path);
      return 2;
    }
    ::testing::UnitTest::GetInstance()->listeners().Append(new ResultRecorder(file));
  }
  return RUN_ALL_TESTS();
}
