#pragma once

#include <string_view>

namespace kiosk::win32 {

// Writes UTF-8 text to standard output (or standard error): wide to a console, as it is to a file or pipe. The C
// library's wide printing is no use for this: it writes nothing for characters outside its locale. False when nobody
// takes it any more, as when the program that it was piped to has ended.
bool Print(std::string_view text);
void PrintError(std::string_view text);

// True when standard output is a console that a person looks at.
bool OutputIsConsole() noexcept;

}  // namespace kiosk::win32
