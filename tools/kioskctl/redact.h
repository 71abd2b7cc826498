// Takes out of a text what a supporter does not need and must not learn.
#pragma once

#include <string>
#include <vector>

namespace kioskctl {

// The UTF-8 text without
// - each of the names, in whatever letter case, where it stands as a word of its own: "[user2]" for the second one;
// - folders below "\Users\": "[user]", but for those of the kiosk account and of Windows;
// - what stands before an "@", as in addresses of mail and in a user and password of a URL: "[user]";
// - the query of a URL: "?...";
// - the numbers of SIDs of accounts: "S-1-5-21-...".
std::string Redacted(const std::string& text, const std::vector<std::wstring>& names);

// The names of people that this computer knows: its accounts, their full names, whoever has a profile or is signed in,
// and who signed in last. Not the kiosk account's, nor those that Windows gives to accounts of its own. The longer
// first, each once.
std::vector<std::wstring> NamesOfUsers();

}  // namespace kioskctl
