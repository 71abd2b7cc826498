// Entries in Windows' event log, their source and their texts. Which of them the service writes when is shown beside
// the rest of what it does then: worker_test, service_test, crash_test, pairing_test, teardown_test, updates_test.
#include "log/event_log.h"

#include "service/event_source.h"
#include "sim/clock.h"
#include "sim/event_log.h"
#include "sim/faults.h"
#include "state/kiosk_state.h"
#include "tests/support/fixture.h"
#include "win32/owners.h"
#include "win32/program_path.h"

namespace kiosk::log {
namespace {

using Entries = std::vector<std::string>;
constexpr char kLost[] = "WARN event log: entry 101 is lost (1722), and those to come until Windows takes them";

class EventLogTest : public test::CleanMachine {
 protected:
  sim::VirtualClock clock_{sim::FileTimeOf(2026, 11, 21, 9)};
};

TEST_F(EventLogTest, ALossIsLoggedOnceUntilAnEntryIsTaken) {
  for (int outage = 1; outage <= 2; ++outage) {
    sim::eventLog.error.Set(RPC_S_SERVER_UNAVAILABLE);
    WriteEvent(ENTRY_STOPPED);
    WriteEvent(ENTRY_STOPPED);
    EXPECT_EQ(test::CountLogged(kLost), outage);
    sim::eventLog.error.Set(0);
    WriteEvent(ENTRY_PORTAL_AWAY, {"\xC5\x81\xC3\xB3"
                                   "d\xC5\xBA",
                                   "%1"});
  }
  EXPECT_EQ(sim::EventLogEntries(), Entries(2,
                                            "NorvaneKiosk warning 210 [\xC5\x81\xC3\xB3"
                                            "d\xC5\xBA] [%1]"));
  EXPECT_EQ(clock_.Elapsed(), 0U);
}

TEST_F(EventLogTest, AnEventLogThatHangsCostsTwoSecondsFourTimes) {
  sim::eventLog.takes.Set(60'000);
  for (const std::uint64_t until : {2'000U, 4'000U, 6'000U, 8'000U, 8'000U, 8'000U}) {
    WriteEvent(ENTRY_STOPPED);
    EXPECT_EQ(clock_.Elapsed(), until);
  }
  EXPECT_EQ(test::CountLogged("WARN event log: entry 101 is lost (1460), and those to come until Windows takes them"),
            1);
  clock_.RunUntil(70'000);
  EXPECT_EQ(sim::EventLogEntries().size(), 4U) << "what was given up comes late";
  sim::eventLog.takes.Set(0);
  WriteEvent(ENTRY_STARTED, {"v"});
  EXPECT_EQ(sim::EventLogEntries().back(), "NorvaneKiosk information 100 [v]");
}

TEST_F(EventLogTest, ATroubleIsToldOnceWhoeverIsAskedAndWhateverTheRegistryTakes) {
  ASSERT_EQ(state::ProtectStateKey().what, nullptr);
  EXPECT_FALSE(TroubleIsOver(kPortalAway | kClockWrong));
  TellTrouble(kClockWrong, ENTRY_CLOCK_WRONG);
  TellTrouble(kPortalAway, ENTRY_PORTAL_AWAY, {"HTTP 503"});
  TellTrouble(kPortalAway, ENTRY_PORTAL_AWAY, {"HTTP 504"});
  EXPECT_EQ(state::ReadStateDword(state::kToldTroubles), DWORD{kPortalAway | kClockWrong});
  EXPECT_TRUE(TroubleIsOver(kTroublesOfEnrolment));
  EXPECT_FALSE(TroubleIsOver(kTroublesOfEnrolment));
  EXPECT_EQ(state::ReadStateDword(state::kToldTroubles), DWORD{kClockWrong});
  EXPECT_TRUE(TroubleIsOver(kClockWrong));
  EXPECT_FALSE(state::ReadState(state::kToldTroubles));
  // What an earlier process told.
  test::SetDword(state::kStateKey, L"ToldTroubles", kUpdatesFail);
  TellTrouble(kUpdatesFail, ENTRY_UPDATES_FAILED, {"search 0x80240438"});
  {
    const sim::FaultPass full("\\ToldTroubles)", ERROR_DISK_FULL);
    TellTrouble(kSetUpFails, ENTRY_KIOSK_NOT_SET_UP, {"no_client", "0"});
    TellTrouble(kSetUpFails, ENTRY_KIOSK_NOT_SET_UP, {"no_client", "0"});
  }
  EXPECT_EQ(sim::EventLogEntries(), (Entries{"NorvaneKiosk warning 110", "NorvaneKiosk warning 210 [HTTP 503]",
                                             "NorvaneKiosk error 202 [no_client] [0]"}));
}

// Of the library that the registry names, as a viewer would look.
TEST_F(EventLogTest, TheSourceNamesALibraryThatHasEveryText) {
  service::AddEventSource(win32::ProgramPath());
  EXPECT_EQ(test::LogTexts(), Entries{});
  EXPECT_EQ(state::ReadDword(kEventSourceKey, L"TypesSupported"), DWORD{7});
  const std::wstring path = state::ReadString(kEventSourceKey, L"EventMessageFile").value_or(L"");
  const win32::Library library(
      LoadLibraryExW(path.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE));
  ASSERT_TRUE(library) << GetLastError();
  constexpr DWORD kNumbers[] = {
      ENTRY_STARTED,     ENTRY_STOPPED,       ENTRY_CRASHED,          ENTRY_CLOCK_WRONG,   ENTRY_LOG_FOLDER_UNUSABLE,
      ENTRY_PAIRED,      ENTRY_KIOSK_SET_UP,  ENTRY_KIOSK_NOT_SET_UP, ENTRY_KIOSK_REMOVED, ENTRY_PORTAL_AWAY,
      ENTRY_PORTAL_BACK, ENTRY_UPDATES_FAILED};
  for (const DWORD number : kNumbers) {
    wchar_t text[512];
    EXPECT_NE(FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_IGNORE_INSERTS, library.Get(), number, 0,
                             text, 512, nullptr),
              0U)
        << (number & 0xFFFF);
  }
  service::RemoveEventSource(win32::ProgramPath());
  EXPECT_FALSE(test::HasKey(kEventSourceKey));
  service::RemoveEventSource(win32::ProgramPath());
  EXPECT_EQ(test::LogTexts(), Entries{});
}

TEST_F(EventLogTest, LibrariesOfOtherBuildsGoUnlessTheyAreOpen) {
  const std::wstring folder = L"C:\\ProgramData\\Norvane\\Program";
  const auto file = [&](const wchar_t* name) { return folder + L"\\" + name; };
  ASSERT_TRUE(CreateDirectoryW(L"C:\\ProgramData\\Norvane", nullptr) != 0 &&
              CreateDirectoryW(folder.c_str(), nullptr) != 0);
  for (const wchar_t* name : {L"NorvaneKioskEvents-00000001.dll", L"NorvaneKioskEvents-00000002.dll",
                              L"NorvaneKioskEvents.dll", L"NorvaneKiosk.exe"}) {
    test::WriteWholeFile(file(name), "x");
  }
  {
    const win32::FileHandle viewer(CreateFileW(file(L"NorvaneKioskEvents-00000002.dll").c_str(), GENERIC_READ,
                                               FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    service::AddEventSource(file(L"NorvaneKiosk.exe"));
  }
  const std::wstring library = state::ReadString(kEventSourceKey, L"EventMessageFile").value_or(L"");
  EXPECT_EQ(test::CountLogged("WARN --install: " + sim::Narrow(library) +
                              " is missing; the event log shows its entries without their texts"),
            1);
  using Names = std::vector<std::wstring>;
  EXPECT_EQ(test::ListFolder(folder),
            (Names{L"NorvaneKiosk.exe", L"NorvaneKioskEvents-00000002.dll", L"NorvaneKioskEvents.dll"}));
  test::WriteWholeFile(library, "this build's");
  service::RemoveEventSource(file(L"NorvaneKiosk.exe"));
  EXPECT_EQ(test::ListFolder(folder),
            (Names{L"NorvaneKiosk.exe", library.substr(folder.size() + 1), L"NorvaneKioskEvents.dll"}));
}

}  // namespace
}  // namespace kiosk::log
