#include "tests/soak/world.h"

#include "log/log_settings.h"
#include "sim/accounts.h"
#include "sim/clock.h"
#include "sim/computer.h"
#include "sim/profiles.h"
#include "sim/sessions.h"
#include "tests/support/fixture.h"
#include "tests/support/terminal.h"

#include <cstdio>

namespace kiosk::soak {
namespace {

thread_local int hands = 0;

}  // namespace

World world;

Hand::Hand() { ++hands; }
Hand::~Hand() { --hands; }
bool Hand::IsHere() { return hands != 0; }

void LoadWorld() {
  DWORD size = sizeof(world);
  RegGetValueW(HKEY_LOCAL_MACHINE, kSoakKey, L"World", RRF_RT_REG_BINARY, nullptr, &world, &size);
}

void SaveWorld() {
  const Hand hand;
  RegSetKeyValueW(HKEY_LOCAL_MACHINE, kSoakKey, L"World", REG_BINARY, &world, sizeof(world));
}

std::string ReadNote(const wchar_t* name) {
  std::string text(1 << 20, '\0');
  DWORD size = static_cast<DWORD>(text.size());
  const LSTATUS status =
      RegGetValueW(HKEY_LOCAL_MACHINE, kSoakKey, name, RRF_RT_REG_BINARY, nullptr, text.data(), &size);
  text.resize(status == ERROR_SUCCESS ? size : 0);
  return text;
}

void WriteNote(const wchar_t* name, const std::string& text) {
  const Hand hand;
  RegSetKeyValueW(HKEY_LOCAL_MACHINE, kSoakKey, name, REG_BINARY, text.data(), static_cast<DWORD>(text.size()));
}

void EndProcess(unsigned code) {
  TerminateProcess(GetCurrentProcess(), code);
  Sleep(INFINITE);
  __builtin_unreachable();
}

void Broken(const std::string& sentence) {
  SaveWorld();
  WriteNote(L"Broken", sentence);
  static_cast<void>(std::fprintf(stderr, "soak: %s\n", sentence.c_str()));
  static_cast<void>(std::fflush(stderr));
  EndProcess(kBrokenExitCode);
}

void MakeComputer() {
  test::ResetComputer();
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, kSoakKey);
  test::OwnComputer();
  sim::MakeProfile(sim::AddUser(L"berta", L"hers"), L"berta");
  sim::AddToGroup(test::kAdministrators, sim::FindUser(L"berta")->sid);
  SetUpProduct();
  world = World();
  world.utc = sim::FileTimeOf(2026, 3, 1, 7);
  world.bias = -60;
  SaveWorld();
  WriteNote(L"Before", sim::DumpMachine());
}

void SetUpProduct() {
  test::Enrol("", false);
  test::SetString(log::kSettingsKey, L"LogEndpoint", L"https://logs.test/gelf");
  test::SetDword(log::kSettingsKey, L"SpoolCapMB", 1);
}

}  // namespace kiosk::soak
