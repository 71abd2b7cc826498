// Whatever call of the proof kit fails, whenever its process ends: a fresh one puts the computer back from the journal.
#include "sim/computer.h"
#include "sim/fault_driver.h"
#include "sim/lsa.h"
#include "tests/contract/hand.h"
#include "tests/support/terminal.h"
#include "text/text.h"
#include "tools/proof/files.h"
#include "tools/proof/journal.h"
#include "tools/proof/services.h"
#include "win32/privilege.h"

#include <thread>

namespace proof {
namespace {

namespace test = kiosk::test;

constexpr wchar_t kDumpFile[] = L"C:\\kit-dump-before.txt";
constexpr wchar_t kJournal[] = L"C:\\ProgramData\\NorvaneProof\\journal.txt";
constexpr wchar_t kTrap[] = L"C:\\ProgramData\\NorvaneProofTrap";
constexpr wchar_t kMaker[] = L"C:\\ProgramData\\Norvane";
constexpr wchar_t kPerson[] = L"NorvaneProofPerson";
constexpr wchar_t kHive[] = L"NorvaneProofHive";
constexpr wchar_t kProfileHive[] = L"C:\\users\\anna\\NTUSER.DAT";

constexpr wchar_t kAuthority[] =
    L"SOFTWARE\\Microsoft\\SystemCertificates\\Root\\Certificates\\00112233445566778899aabbccddeeff00112233";

std::wstring TemporaryFolder() {
  wchar_t root[MAX_PATH];
  GetTempPathW(MAX_PATH, root);
  return std::wstring(root) + L"NorvaneProof-1";
}

std::vector<std::wstring> MadeFolders() { return {kTrap, kMaker, kWorkFolder, TemporaryFolder()}; }

bool MakeService(const wchar_t* name) {
  const kiosk::win32::ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE));
  return static_cast<bool>(kiosk::win32::ServiceHandle(
      CreateServiceW(manager.Get(), name, name, SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                     SERVICE_ERROR_NORMAL, L"C:\\none.exe", nullptr, nullptr, nullptr, nullptr, nullptr)));
}

bool LoadHive(const wchar_t* name, const std::wstring& file) {
  kiosk::win32::EnablePrivilege(L"SeBackupPrivilege");
  kiosk::win32::EnablePrivilege(L"SeRestorePrivilege");
  return RegLoadKeyW(HKEY_USERS, name, file.c_str()) == ERROR_SUCCESS;
}

// On a thread of its own, where no fault comes: the faults are the kit's, and the product has scenarios of its own.
void Elsewhere(const std::function<void()>& action) { std::thread(action).join(); }

bool MakeWhatCasesMake() {
  bool made = false;
  Elsewhere([&made] {
    static_cast<void>(new contract::SpareAdapter);  // never given back, as in a process that ended
    sim::AddUser(L"NorvaneProofUser", L"secret");
    sim::SetSecret(L"NorvaneProof", L"secret");
    const std::wstring hive = TemporaryFolder() + L"\\hive";
    made = CreateDirectoryW(TemporaryFolder().c_str(), nullptr) != 0 &&
           CopyFileW(kProfileHive, hive.c_str(), TRUE) != 0 && MakeService(L"NorvaneProof") &&
           LoadHive(L"NorvaneProof", hive);
  });
  return made;
}

bool PlantALink() {
  if (!NoteFolder(kTrap) || !NoteFolder(kMaker) || CreateDirectoryW(kTrap, nullptr) == 0) {
    return false;
  }
  contract::MakeJunction(kMaker, kTrap);
  return ReplaceFileText(std::wstring(kTrap) + L"\\file", "content");
}

bool TrustAnAuthority() {
  return NoteTrust(std::wstring(kAuthority).substr(std::wstring(kAuthority).find_last_of(L'\\') + 1).c_str()) &&
         kiosk::state::WriteString(kAuthority, L"Blob", L"x");
}

bool MakeAKiosk() {
  bool made = false;
  Elsewhere([&made] {
    made = MakeService(L"NorvaneKiosk");
    RemoveDirectoryW(kMaker);  // the link
    test::Enrol("tok-1");
  });
  return made;
}

// What the steps of the kit do, in their order, up to the first that fails.
bool Play() {
  return BeginJournal().empty() && NoteContractCases() && MakeWhatCasesMake() &&                  //
         NoteService(kAgentService) && MakeService(kAgentService) && PlantALink() &&              //
         NoteSecret(L"DefaultPassword") &&                                                        //
         SetValue(kiosk::account::kWinlogonKey, L"AutoAdminLogon", REG_SZ, L"0") &&               //
         SetValue(kiosk::state::kStateKey, L"DevAllowUnsigned", 1) &&                             //
         NoteProduct(BesideKit(L"NorvaneKioskSim.exe")) &&                                        //
         SetValue(test::kUpdateKey, L"ClientInstallDir", REG_SZ, L"") && MakeAKiosk() &&          //
         TrustAnAuthority() && NoteUser(kPerson) && !sim::AddUser(kPerson, L"secret").empty() &&  //
         NoteHive(kHive) && LoadHive(kHive, kProfileHive);
}

void Prepare() {
  test::ResetComputer();
  for (const wchar_t* const name : {L"NorvaneKiosk", L"NorvaneProof", kAgentService}) {
    EndService(name);
  }
  for (const std::wstring& folder : MadeFolders()) {
    test::RemoveTree(folder);
  }
  test::OwnComputer();
  test::SetString(kiosk::account::kWinlogonKey, L"AutoAdminLogon", L"1");
  sim::SetSecret(L"DefaultPassword", L"anna's");
  test::WriteWholeFile(kDumpFile, sim::DumpMachine());
}

void ExpectUndone() {
  EXPECT_EQ(UndoAll(), "");
  EXPECT_EQ(LookAtJournal(), JournalState::kNone);
  EXPECT_EQ(UndoAll(), "the journal cannot be read");
  EXPECT_EQ(test::Differences(test::ReadWholeFile(kDumpFile)), std::set<std::string>{});
  for (const std::wstring& folder : MadeFolders()) {
    EXPECT_FALSE(IsThere(folder)) << sim::Narrow(folder);
  }
  for (const wchar_t* const key : {kiosk::state::kStateKey, test::kUpdateKey, kAuthority}) {
    EXPECT_FALSE(test::HasKey(key)) << sim::Narrow(key);
  }
  for (const wchar_t* const name : {L"NorvaneKiosk", L"NorvaneProof", kAgentService}) {
    EXPECT_FALSE(OpenExisting(name, SERVICE_QUERY_STATUS)) << sim::Narrow(name);
  }
}

// No journal was begun where already that failed.
void Undo() {
  if (LookAtJournal() != JournalState::kNone) {
    ExpectUndone();
  }
}

// Where no fault is to come: all of it was done, and the journal does not tell the owner's password.
void PlayAndLook() {
  const bool played = Play();
  sim::fault_driver::Role role;
  if (sim::fault_driver::ReadRole(role) && role.kind == static_cast<int>(sim::FaultKind::kCount)) {
    EXPECT_TRUE(played);
    EXPECT_FALSE(test::Differences(test::ReadWholeFile(kDumpFile)).empty());
    const std::string journal = test::ReadWholeFile(kJournal);
    EXPECT_NE(journal.find("\"sealed\""), std::string::npos);
    EXPECT_EQ(journal.find("anna's"), std::string::npos);
    EXPECT_EQ(journal.find(kiosk::text::Hex(std::vector<std::uint8_t>{'a', 0, 'n', 0, 'n', 0, 'a', 0, '\'', 0})),
              std::string::npos);
  }
}

void CutShortEverywhere(int part) {
  sim::RunFaultScenario(
      {.name = L"kit", .prepare = Prepare, .run = PlayAndLook, .later = Undo, .part = part, .parts = 2});
}

TEST(ProofFaults, EverySecondPointIsUndone) { CutShortEverywhere(0); }
TEST(ProofFaults, AndSoIsEveryOther) { CutShortEverywhere(1); }

TEST(ProofUndo, DamagedJournalsChangeNothing) {
  Prepare();
  ASSERT_TRUE(BeginJournal().empty() && NoteUser(kPerson) && !sim::AddUser(kPerson, L"secret").empty());
  const std::string whole = test::ReadWholeFile(kJournal);
  const std::string after = sim::DumpMachine();
  for (const std::string& damaged : {whole + "what is this\n", whole + "{\"kind\":\"else\"}\n",
                                     whole + "{\"kind\":\"user\"", std::string(1, '\0') + whole, whole.substr(3)}) {
    test::WriteWholeFile(kJournal, damaged);
    EXPECT_EQ(LookAtJournal(), JournalState::kDamaged) << damaged;
    EXPECT_EQ(UndoAll(), "the journal cannot be read");
    EXPECT_EQ(sim::DumpMachine(), after);
  }
  test::WriteWholeFile(kJournal, whole);
  ExpectUndone();
}

}  // namespace
}  // namespace proof
