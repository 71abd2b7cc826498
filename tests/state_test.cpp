// The state key and the registry helpers, against the real registry.
#include "sim/files.h"
#include "state/folders.h"
#include "state/kiosk_state.h"
#include "tests/support/fixture.h"
#include "win32/handle.h"
#include "win32/security.h"

#include <set>

namespace kiosk::state {
namespace {

using test::HasValue;
using test::SetDword;
using test::SetRaw;
using test::SetString;

class State : public test::CleanMachine {};

constexpr wchar_t kKey[] = L"SOFTWARE\\Norvane\\Test";

TEST_F(State, StringsAreReadByTypeAndCutAtTheFirstNul) {
  const std::wstring longText(5000, L'x');
  struct {
    DWORD type;
    std::wstring stored;  // bytes as they are, no terminator added
    std::optional<std::wstring> read;
  } const cases[] = {
      {REG_SZ, std::wstring(L"text\0", 5), L"text"},
      {REG_SZ, L"no terminator", L"no terminator"},
      {REG_SZ, std::wstring(L"first\0second\0", 13), L"first"},
      {REG_SZ, L"", L""},
      {REG_SZ, longText, longText},
      {REG_EXPAND_SZ, std::wstring(L"%SystemRoot%\\x\0", 15), L"C:\\windows\\x"},
      {REG_EXPAND_SZ, L"%NoSuchVariable%", L"%NoSuchVariable%"},
      {REG_MULTI_SZ, std::wstring(L"a\0\0", 3), std::nullopt},
      {REG_BINARY, L"bytes", std::nullopt},
      {REG_DWORD, L"ab", std::nullopt},
  };
  for (const auto& each : cases) {
    SetRaw(kKey, L"Value", each.type, each.stored.data(), each.stored.size() * sizeof(wchar_t));
    EXPECT_EQ(ReadString(kKey, L"Value"), each.read) << each.type;
  }
  EXPECT_EQ(ReadString(kKey, L"Missing"), std::nullopt);
  EXPECT_EQ(ReadString(L"SOFTWARE\\Norvane\\NoKey", L"Value"), std::nullopt);
}

TEST_F(State, NumbersAndBytesOfAnotherTypeOrSizeAreAbsent) {
  SetDword(kKey, L"Number", 7);
  SetRaw(kKey, L"Short", REG_DWORD, "ab", 2);
  SetRaw(kKey, L"Long", REG_QWORD, "12345678", 8);
  SetString(kKey, L"Text", L"7");
  EXPECT_EQ(ReadDword(kKey, L"Number"), 7U);
  for (const wchar_t* name : {L"Short", L"Long", L"Text", L"Missing"}) {
    EXPECT_EQ(ReadDword(kKey, name), std::nullopt);
  }
  // The state key's own reader; and the key may be deleted and made again under its open handle.
  for (int round = 0; round < 2; ++round) {
    EXPECT_FALSE(ReadState(kUnknownSince)) << round;
    SetRaw(kStateKey, L"UnknownSince", REG_QWORD, "12345678", 8);
    EXPECT_EQ(ReadState(kUnknownSince)->Qword(), 0x3837363534333231U);
    EXPECT_EQ(ReadState(kUnknownSince)->Dword(), std::nullopt);
    SetDword(kStateKey, L"UnknownSince", 7);
    EXPECT_EQ(ReadState(kUnknownSince)->Qword(), std::nullopt);
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, kStateKey);
  }
}

TEST_F(State, KeyIsProtectedAlsoWhenItExisted) {
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(ProtectStateKey().what, nullptr);
    win32::RegistryKey key;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, kStateKey, 0, READ_CONTROL, key.Put()), ERROR_SUCCESS);
    BYTE descriptor[1024];
    DWORD size = sizeof(descriptor);
    ASSERT_EQ(RegGetKeySecurity(key.Get(), DACL_SECURITY_INFORMATION, descriptor, &size), ERROR_SUCCESS);
    EXPECT_EQ(sim::SddlText(descriptor), L"D:P(A;CI;KA;;;SY)(A;CI;KA;;;BA)");
    // Second round: the key exists with a security of somebody else's.
    const win32::SecurityDescriptor open(L"D:(A;;KA;;;WD)");
    RegSetKeySecurity(key.Get(), DACL_SECURITY_INFORMATION, open.Get());
  }
}

TEST_F(State, WritesNeverBringTheKeyBack) {
  EXPECT_FALSE(WriteStateString(kTerminalName, L"Hall 3"));
  RecordLastError("no_client");
  EXPECT_TRUE(DeleteStateValue(kLastError));
  win32::RegistryKey key;
  EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, kStateKey, 0, KEY_READ, key.Put()), ERROR_FILE_NOT_FOUND);
}

TEST_F(State, FlagsAndTheTokenCountOnlyAsWhatTheyShouldBe) {
  ASSERT_EQ(ProtectStateKey().what, nullptr);
  RecordLastError("Łódź");
  EXPECT_EQ(ReadStateString(kLastError), L"Łódź");
  RecordLastError("");
  EXPECT_FALSE(HasValue(kStateKey, L"LastError")) << "stored empty";
  SetDword(kStateKey, L"Maintenance", 2);
  SetRaw(kStateKey, L"DeviceToken", REG_BINARY, nullptr, 0);
  EXPECT_FALSE(FlagIsOn(kMaintenance) || TokenIsStored());
  SetDword(kStateKey, L"Maintenance", 1);
  SetRaw(kStateKey, L"DeviceToken", REG_BINARY, "x", 1);
  EXPECT_TRUE(FlagIsOn(kMaintenance) && TokenIsStored());
}

TEST_F(State, ClientFolderHasNoTrailingSlashes) {
  constexpr wchar_t kUpdate[] = L"SOFTWARE\\Norvane\\Tessaly\\Update";
  EXPECT_EQ(ClientInstallFolder(), L"");
  const std::pair<const wchar_t*, const wchar_t*> cases[] = {
      {L"C:\\Program Files\\Tessaly\\/\\//", L"C:\\Program Files\\Tessaly"},
      {L"%SystemRoot%\\client\\", L"C:\\windows\\client"},
      {L"\\\\/", L""}};
  for (const auto& [stored, folder] : cases) {
    SetString(kUpdate, L"ClientInstallDir", stored, REG_EXPAND_SZ);
    EXPECT_EQ(ClientInstallFolder(), folder);
  }
}

}  // namespace
}  // namespace kiosk::state
