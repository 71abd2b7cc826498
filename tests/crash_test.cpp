// What a fault leaves behind: a line in the log and a dump that a debugger opens.
#include "service/crash.h"

#include "log/day_files.h"
#include "tests/support/fixture.h"
#include "win32/handle.h"

namespace kiosk::service {
namespace {

class CrashTest : public test::CleanMachine {};

std::vector<std::wstring> Dumps() {
  std::vector<std::wstring> names;
  WIN32_FIND_DATAW data;
  const win32::FindHandle find(FindFirstFileW((std::wstring(log::kLogRoot) + L"\\*.dmp").c_str(), &data));
  for (BOOL more = find ? TRUE : FALSE; more != 0; more = FindNextFileW(find.Get(), &data)) {
    names.emplace_back(std::wstring(log::kLogRoot) + L"\\" + data.cFileName);
  }
  return names;
}

TEST_F(CrashTest, AFaultLeavesOneLineAndADump) {
  for (const std::wstring& old : Dumps()) {
    DeleteFileW(old.c_str());
  }
  InstallCrashHandler();
  const LPTOP_LEVEL_EXCEPTION_FILTER filter = SetUnhandledExceptionFilter(nullptr);
  CONTEXT context{};
  RtlCaptureContext(&context);
  EXCEPTION_RECORD record{};
  EXCEPTION_POINTERS details{&record, &context};

  // An exception of C++ goes on, so that terminate can tell that nobody wanted it.
  record.ExceptionCode = 0x20474343;
  EXPECT_EQ(filter(&details), EXCEPTION_CONTINUE_EXECUTION);
  EXPECT_TRUE(Dumps().empty());

  record.ExceptionCode = static_cast<DWORD>(EXCEPTION_ACCESS_VIOLATION);
  record.ExceptionAddress = reinterpret_cast<void*>(&InstallCrashHandler);
  EXPECT_EQ(filter(&details), EXCEPTION_EXECUTE_HANDLER);
  const std::vector<std::string> lines = test::LogTexts();
  ASSERT_FALSE(lines.empty());
  EXPECT_TRUE(lines.back().starts_with("ERROR fault 0xc0000005 at program+0x")) << lines.back();
  const std::vector<std::wstring> dumps = Dumps();
  ASSERT_EQ(dumps.size(), 1U);
  // The service would end after 10 s, whatever has been written by then; a busy machine needs longer for the whole of
  // it.
  std::string content;
  for (int i = 0; i < 600 && content.size() <= 4096; ++i) {
    Sleep(100);
    content = test::ReadWholeFile(dumps.front());
  }
  EXPECT_EQ(content.substr(0, 4), "MDMP");
  EXPECT_GT(content.size(), 4096U);

  // A second fault waits for the first one's report and adds nothing.
  EXPECT_EQ(filter(&details), EXCEPTION_EXECUTE_HANDLER);
  EXPECT_EQ(Dumps().size(), 1U);
  EXPECT_EQ(test::LogTexts().size(), lines.size());
}

}  // namespace
}  // namespace kiosk::service
