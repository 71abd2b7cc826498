// A terminal whose branding is looked at, and two photos that the portal has.
#pragma once

#include "branding/branding_cache.h"
#include "branding/branding_folder.h"
#include "json/parse.h"
#include "sim/files.h"
#include "tests/support/terminal.h"
#include "win32/secure_folder.h"

namespace kiosk::branding {

using test::Exists;
using Names = std::vector<std::wstring>;

inline const std::wstring kFolder = kBrandingFolder;
inline constexpr const wchar_t* kTree[] = {L"C:\\ProgramData\\Norvane", L"C:\\ProgramData\\Norvane\\Tessaly",
                                           kKioskFolder, kBrandingFolder};
inline constexpr wchar_t kTrap[] = L"C:\\branding-trap";
// SHA-256 of the bytes "one" and "two".
inline const std::string kOne = "7692c3ad3540bb803c020b3aee66cd8887123234ea0c6e7143c0add73ff431ed";
inline const std::string kTwo = "3fc4ccfe745870e2c0d99f71f30ff0656c8dedd41cc1d7d3d376b0dbe685e2f3";
inline const std::wstring kOneFile = kFolder + L"\\" + std::wstring(kOne.begin(), kOne.end());
inline const std::wstring kRecord = kFolder + L"\\branding.json";
inline const std::string kBranding =
    R"({"displayName":"Café","photos":[{"sha256":")" + kOne + R"("},{"sha256":")" + kTwo + R"("}]})";
inline const std::string kWritten = kBranding.substr(0, kBranding.size() - 1) + R"(,"tenantId":"t1"})";
inline const Names kComplete = {std::wstring(kTwo.begin(), kTwo.end()), std::wstring(kOne.begin(), kOne.end()),
                                L"branding.json"};

inline void Apply(const std::string& branding, const std::string& token = "tok") {
  ApplyBranding(json::Parse(branding).value_or(json::Value()), "t1", token);
}

inline std::string Listing(const std::vector<std::string>& digests) {
  std::string text;
  for (const std::string& digest : digests) {
    text += (text.empty() ? R"({"sha256":")" : R"(,{"sha256":")") + digest + "\"}";
  }
  return "{\"photos\":[" + text + "]}";
}

inline bool Logged(const std::string& text) { return test::CountLogged(text) > 0; }

class BrandingTest : public test::EnrolledTerminal {
 protected:
  void SetUp() override {
    EnrolledTerminal::SetUp();
    test::RemoveTree(kTrap);
    Serve(kOne, {.body = "one"});
    Serve(kTwo, {.body = "two"});
  }
  void Serve(const std::string& digest, const sim::Response& response) {
    portal_.On(L"GET", L"/api/kiosk/branding/photos/" + std::wstring(digest.begin(), digest.end()), response);
  }
  template <typename Call>
  void ExpectDoneWithin(std::uint64_t milliseconds, Call call) {
    const std::uint64_t start = clock_.Elapsed();
    call();
    EXPECT_LE(clock_.Elapsed() - start, milliseconds);
  }
  static void ExpectComplete() {
    EXPECT_EQ(test::ListFolder(kFolder), kComplete);
    EXPECT_EQ(test::ReadWholeFile(kOneFile), "one");
    EXPECT_EQ(test::ReadWholeFile(kRecord), kWritten);
    for (int level = 0; level < 4; ++level) {
      EXPECT_EQ(sim::FileSecurity(kTree[level]), level < 2 ? win32::kPrivateFolderSddl : win32::kReadableFolderSddl);
    }
    EXPECT_EQ(test::ListFolder(kTrap), (Exists(kTrap) ? Names{L"mine"} : Names{}));
  }
};

}  // namespace kiosk::branding
