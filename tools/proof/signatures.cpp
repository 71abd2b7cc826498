// Whom a signed service admits: copies of a client that tools/proof/pack has signed in several ways, and what others
// may do to the file of a program while it asks.
#include "state/kiosk_state.h"
#include "tests/contract/hand.h"
#include "text/text.h"
#include "tools/proof/hand.h"
#include "tools/proof/journal.h"
#include "tools/proof/life.h"
#include "tools/proof/product.h"
#include "tools/proof/run.h"
#include "win32/computer_name.h"
#include "win32/owners.h"
#include "win32/wide_text.h"

#include <optional>

namespace proof {
namespace {

using contract::Asked;
using contract::Platform;
using kiosk::win32::FileHandle;

constexpr char kNotOurs[] = "is not signed by this service's publisher";
constexpr char kNotValid[] = "is not validly signed";
constexpr char kDevelopment[] = "not signed (a dev build)";
constexpr wchar_t kPrograms[] = L"C:\\ProgramData\\NorvaneProofPrograms";

std::wstring Signed(const wchar_t* name) { return BesideKit(L"signed\\") + name; }

void NeedSigned() {
  if (!TheRun().Note("signed").boolean()) {
    Asked::CannotRun("the service is not signed");
  }
}

// Of a program that asked for the status and printed the answer.
bool IsAdmitted(const Ran& ran) {
  SetLastError(ran.error);
  Asked::Needs(ran.error == ERROR_SUCCESS && ran.output.find("\"ok\":") != std::string::npos, "an answer to a program");
  return ran.output.find("\"caller_refused\"") == std::string::npos;
}

// Lets the client ask, `meanwhile` being done between its start and its question.
bool Admits(const std::wstring& program, const std::function<void()>& meanwhile = nullptr) {
  return IsAdmitted(RunProgram(
      L"\"" + program + (meanwhile ? L"\" --wait" : L"\"") + L" \"{\\\"cmd\\\":\\\"status\\\"}\"", kSoon, meanwhile));
}

// Windows tells a path as it is on the disk, not as somebody typed it.
std::wstring Lower(const std::string& text) {
  std::wstring lower = kiosk::win32::ToWide(text);
  CharLowerBuffW(lower.data(), static_cast<DWORD>(lower.size()));
  return lower;
}

void Refuses(Asked& asked, const std::wstring& program, const char* why,
             const std::function<void()>& meanwhile = nullptr) {
  const std::string name = kiosk::win32::ToNarrow(program);
  asked.True((name + " is refused").c_str(), !Admits(program, meanwhile));
  asked.True((name + " is in the log").c_str(),
             Lower(ProductLog()).find(Lower("caller refused: " + name + " " + why)) != std::wstring::npos);
}

// A copy of a signed program under a name of its own, which goes with the folder.
std::wstring Copy(const wchar_t* program, const wchar_t* name) {
  std::wstring path = std::wstring(kPrograms) + L"\\" + name;
  Asked::Needs(NoteFolder(kPrograms) &&
                   (CreateDirectoryW(kPrograms, nullptr) != 0 || GetLastError() == ERROR_ALREADY_EXISTS) &&
                   CopyFileW(Signed(program).c_str(), path.c_str(), FALSE) != 0,
               "a copy of a program");
  return path;
}

void UnsignedCallers(Asked& asked) {
  const auto allow = [](DWORD number) {
    return kiosk::state::WriteDword(kiosk::state::kStateKey, kiosk::state::kDevAllowUnsigned.name, number);
  };
  const contract::AtEnd again([&] { allow(1); });
  Asked::Needs(allow(0), "the value DevAllowUnsigned");  // noted when the product was installed
  asked.Same("the status", Error(AskProduct("status")), L"caller_refused");
  asked.True("the log says why", ProductLog().find("caller refused: this service is unsigned and DevAllowUnsigned is "
                                                   "not set") != std::string::npos);
}

// From now on the computer trusts the authority (DER). False with the last error.
bool Trust(const std::string& authority) {
  const kiosk::win32::Certificate certificate(CertCreateCertificateContext(
      X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(authority.data()), static_cast<DWORD>(authority.size())));
  std::vector<BYTE> digest(20);
  DWORD size = static_cast<DWORD>(digest.size());
  const kiosk::win32::CertStore roots(
      CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"Root"));
  return certificate && roots &&
         CertGetCertificateContextProperty(certificate.Get(), CERT_HASH_PROP_ID, digest.data(), &size) != 0 &&
         NoteTrust(kiosk::win32::ToWide(kiosk::text::Hex(digest)).c_str()) &&
         CertAddCertificateContextToStore(roots.Get(), certificate.Get(), CERT_STORE_ADD_REPLACE_EXISTING, nullptr) !=
             0;
}

void SignedService(Asked& asked) {
  const std::optional<std::string> authority = ReadFileText(Signed(L"authority.cer"));
  if (!authority) {
    Asked::CannotRun("there are no signed copies beside the kit");
  }
  Asked::Needs(Trust(*authority), "trust in their authority");
  const std::size_t logged = ProductLog().size();
  asked.True("the service stops", StopProduct() != INFINITE);
  asked.Same("the signed one is installed in its place",
             RunProgram(L"\"" + Signed(L"NorvaneKiosk.exe") + L"\" --install", kSoon).exitCode, 0);
  asked.True("it answers", AwaitStatus().IsObject());
  asked.True("it knows its signature", ProductLog().find(kDevelopment, logged) == std::string::npos);
  Asked::Needs(TheRun().SetNote("signed", true), "the notes of the run");
}

void Callers(Asked& asked) {
  NeedSigned();
  asked.True("the publisher's own is admitted", Admits(Signed(L"ours.exe")));
  for (const wchar_t* const name : {L"other.exe", L"reordered.exe"}) {
    Refuses(asked, Signed(name), kNotOurs);
  }
  for (const wchar_t* const name : {L"untrusted.exe", L"tampered.exe", L"unsigned.exe"}) {
    Refuses(asked, Signed(name), kNotValid);
  }
  Refuses(asked, Copy(L"unsigned.exe", L"Łódź – Halle 3.exe"), kNotValid);
}

// Another one takes the place of a running program; null: none does.
std::function<void()> Replace(const std::wstring& path, const wchar_t* successor) {
  return [path, successor] {
    Asked::Needs(MoveFileExW(path.c_str(), (path + L".moved").c_str(), MOVEFILE_REPLACE_EXISTING) != 0,
                 "another name for a running program");
    if (successor != nullptr) {
      Copy(successor, path.substr(path.find_last_of(L'\\') + 1).c_str());
    }
  };
}

void ReplacedProgram(Asked& asked) {
  NeedSigned();
  constexpr char kWhy[] = "Wine goes on naming a program's file as it was called at the start";
  if (contract::ThisPlatform() == Platform::kSimulation) {
    Asked::CannotRun(kWhy);
  }
  asked.KnownWrong(Platform::kWine, kWhy);
  const std::wstring path = Copy(L"unsigned.exe", L"replaced.exe");
  asked.True("it is refused", !Admits(path, Replace(path, L"ours.exe")));
}

// No page says what Windows calls it then.
void RenamedProgram(Asked& asked) {
  NeedSigned();
  const struct {
    const wchar_t* name;
    const wchar_t* successor;
    const char* refusal;
  } kRenamed[] = {{L"renamed 1.exe", L"unsigned.exe", kNotValid},
                  {L"renamed 2.exe", L"other.exe", kNotOurs},
                  {L"renamed 3.exe", nullptr, kNotValid}};
  for (const auto& each : kRenamed) {
    const std::wstring path = Copy(L"ours.exe", each.name);
    if (contract::ThisPlatform() != Platform::kWindows) {
      Refuses(asked, path, each.refusal, Replace(path, each.successor));
    } else {
      asked.Tells("admitted under its new name", Admits(path, Replace(path, each.successor)) ? 1 : 0);
    }
  }
}

// Somebody opens it and shares it with nobody.
void HeldProgram(Asked& asked) {
  NeedSigned();
  const std::wstring path = Copy(L"ours.exe", L"held.exe");
  FileHandle held;
  Refuses(asked, path, kNotValid, [&] {
    held.Reset(CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    Asked::Needs(static_cast<bool>(held), "a running program that nobody else can open");
  });
  held.Reset();
  asked.True("then it is admitted", Admits(path));
}

// The look at it is left behind after 15 s; from then on its callers are refused at once, and those of other programs
// are not. Two are started before the lease, since Windows, too, waits for it when it starts a program.
void LeasedProgram(Asked& asked) {
  NeedSigned();
  if (contract::ThisPlatform() == Platform::kSimulation) {
    Asked::CannotRun("a simulated opportunistic lock holds within the kit's own process alone");
  }
  constexpr ULONGLONG kAtOnce = 5'000;  // ms
  const std::wstring path = Copy(L"ours.exe", L"leased.exe");
  std::optional<contract::FileLease> lease;
  ULONGLONG asks = 0;
  asked.True("its second caller is refused", !Admits(path, [&] {
               Refuses(asked, path, kNotValid, [&] { lease.emplace(path); });
               asked.True("another program is admitted meanwhile", Admits(Signed(L"ours.exe")));
               asks = GetTickCount64();
             }));
  asked.True("at once", GetTickCount64() - asks < kAtOnce);
  lease.reset();
  asked.True("then it is admitted", Within(kSoon, [&] { return Admits(path); }));
}

// As from another computer: Windows would sign in there for the service.
void ProgramOfAServer(Asked& asked) {
  NeedSigned();
  const std::wstring here = Signed(L"ours.exe");
  const std::wstring path = L"\\\\" + kiosk::win32::ComputerName() + L"\\" + here[0] + L"$" + here.substr(2);
  Asked::Needs(IsThere(path), "the drive as this computer shares it with administrators");
  Refuses(asked, path, kNotValid);
}

// Windows itself has signed it. The client of docs/pipe.md.
void PowerShell(Asked& asked) {
  NeedSigned();
  if (contract::ThisPlatform() != Platform::kWindows) {
    Asked::CannotRun("Wine has no PowerShell");
  }
  wchar_t system[MAX_PATH];
  GetSystemDirectoryW(system, MAX_PATH);
  asked.True("it is refused",
             !IsAdmitted(RunProgram(
                 L"\"" + std::wstring(system) +
                     L"\\WindowsPowerShell\\v1.0\\powershell.exe\" -NoProfile -NonInteractive -Command \""
                     L"$pipe = New-Object IO.Pipes.NamedPipeClientStream('.', 'NorvaneKiosk', 'InOut', 'None', "
                     L"'Identification'); $pipe.Connect(2000); "
                     L"$bytes = [Text.Encoding]::UTF8.GetBytes('{\\\"cmd\\\":\\\"status\\\"}' + [char]10); "
                     L"$pipe.Write($bytes, 0, $bytes.Length); (New-Object IO.StreamReader($pipe)).ReadLine()\"",
                 kSoon)));
}

void UnsignedAgain(Asked& asked) {
  NeedSigned();
  asked.True("the service stops", StopProduct() != INFINITE);
  asked.Same("--install ends with", RunProduct(L"--install").exitCode, 0);
  asked.True("it answers", Within(kSoon, [] { return kiosk::json::Member(AskProduct("status"), "ok").boolean(); }));
}

constexpr Step kSteps[] = {
    {{"life/unsigned callers", "a service without a signature admits nobody unless it is told to", UnsignedCallers}},
    {{"life/signed service", "a signed program takes the service's place", SignedService}},
    {{"life/callers", "a signed service admits its own publisher's programs alone", Callers}},
    {{"life/replaced program", "an unsigned program is not admitted for the one that takes its place",
      ReplacedProgram}},
    {{"life/renamed program", "one that was renamed is judged by one file", RenamedProgram}},
    {{"life/held program", "a program whose file nobody can open is not admitted", HeldProgram}},
    {{"life/leased program", "who holds a program's file up has its callers alone refused, for as long as he holds it",
      LeasedProgram},
     Step::kMinutes},
    {{"life/program of a server", "a program of another computer is not admitted", ProgramOfAServer}},
    {{"life/powershell", "a program that Windows itself has signed is not admitted", PowerShell}},
    {{"life/unsigned service", "the unsigned program takes its place again", UnsignedAgain}},
};

}  // namespace

const std::span<const Step> kSignatureSteps{kSteps};

}  // namespace proof
