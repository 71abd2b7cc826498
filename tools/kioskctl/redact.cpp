#include "redact.h"

#include "win32/wide_text.h"
#include "win32/winapi.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace kioskctl {
namespace {

constexpr auto kNowhere = std::wstring::npos;

// A line and the same in capital letters, in which names are looked for; both are changed alike.
struct Line {
  std::wstring text;
  std::wstring capitals;

  explicit Line(std::wstring line) : text(std::move(line)), capitals(text) {
    CharUpperBuffW(capitals.data(), static_cast<DWORD>(capitals.size()));
  }
  // Returns where what follows begins.
  std::size_t Replace(std::size_t at, std::size_t end, std::wstring_view by) {
    text.replace(at, end - at, by);
    capitals.replace(at, end - at, by);
    return at + by.size();
  }
};

bool IsWordAt(const std::wstring& text, std::size_t at) {
  return at < text.size() && IsCharAlphaNumericW(text[at]) != 0;
}

void RedactSids(Line& line) {
  for (const std::wstring_view kind : {L"S-1-5-21-", L"S-1-12-1-"}) {  // of computers and domains; of the cloud
    for (std::size_t at = line.capitals.find(kind); at != kNowhere; at = line.capitals.find(kind, at)) {
      at += kind.size();
      at = line.Replace(at, std::min(line.text.find_first_not_of(L"0123456789-", at), line.text.size()), L"...");
    }
  }
}

void RedactQueries(Line& line) {
  for (std::size_t at = line.text.find(L'?'); at != kNowhere; at = line.text.find(L'?', at + 1)) {
    const bool ofUrl = at != 0 && (IsWordAt(line.text, at - 1) || line.text[at - 1] == L'/');
    const std::size_t end = std::min(line.text.find_first_of(L" \t\r\n\"'<>", at), line.text.size());
    if (ofUrl && end > at + 1) {
      line.Replace(at + 1, end, L"...");
    }
  }
}

void RedactBeforeAt(Line& line) {
  for (std::size_t at = line.text.find(L'@'); at != kNowhere; at = line.text.find(L'@', at + 1)) {
    const std::size_t before = at == 0 ? kNowhere : line.text.find_last_of(L" \t\r\n\"'<>()[],;=/\\|", at - 1);
    const std::size_t begin = before == kNowhere ? 0 : before + 1;
    if (begin < at) {
      at = line.Replace(begin, at, L"[user]");
    }
  }
}

void RedactProfiles(Line& line) {
  constexpr std::wstring_view kUsers = L"\\USERS\\";
  for (std::size_t at = line.capitals.find(kUsers); at != kNowhere; at = line.capitals.find(kUsers, at)) {
    // JSON doubles backslashes.
    at = std::min(line.text.find_first_not_of(L'\\', at + kUsers.size()), line.text.size());
    // A name may hold blanks, where something of the folder follows.
    std::size_t end = std::min(line.text.find_first_of(L"\\/\"<>|:*?\t\r\n", at), line.text.size());
    if (end == line.text.size() || line.text[end] != L'\\') {
      end = std::min(line.text.find_first_of(L" ,;)'", at), end);
    }
    const std::wstring folder = line.capitals.substr(at, end - at);
    if (!folder.empty() && !folder.starts_with(L"NORVANEKIOSK") && folder != L"PUBLIC" && folder != L"DEFAULT") {
      at = line.Replace(at, end, L"[user]");
    }
  }
}

void RedactName(Line& line, const std::wstring& name, const std::wstring& by) {
  std::wstring capitals = name;
  CharUpperBuffW(capitals.data(), static_cast<DWORD>(capitals.size()));
  std::size_t at = line.capitals.find(capitals);
  while (at != kNowhere) {
    const std::size_t end = at + capitals.size();
    const bool inWord = (at != 0 && IsWordAt(line.text, at - 1) && IsWordAt(line.text, at)) ||
                        (IsWordAt(line.text, end - 1) && IsWordAt(line.text, end));
    at = line.capitals.find(capitals, inWord ? at + 1 : line.Replace(at, end, by));
  }
}

}  // namespace

std::string Redacted(const std::string& text, const std::vector<std::wstring>& names) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size() - 1) + 1;
    Line line(kiosk::win32::ToWide(std::string_view(text).substr(begin, end - begin)));
    RedactQueries(line);
    RedactBeforeAt(line);
    RedactProfiles(line);
    RedactSids(line);
    for (std::size_t i = 0; i < names.size(); ++i) {
      RedactName(line, names[i], L"[user" + std::to_wstring(i + 1) + L"]");
    }
    result += kiosk::win32::ToNarrow(line.text);
    begin = end;
  }
  return result;
}

}  // namespace kioskctl
