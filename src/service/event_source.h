// What Windows' event log knows of this service: where the texts of its entries are. They are in a library without code
// beside the program, since whoever shows entries keeps it open for long, and the program is to be replaceable. Its
// name has eight digits of the digest of its texts. Without the library, or without all of this, the entries are
// written all the same, and shown as numbers with what was inserted.
#pragma once

#include <string>

namespace kiosk::service {

// Names the library beside `program`, this program's file, to the event log. Libraries of other builds there are
// deleted, but for those that somebody has open: the next call comes. A failure is logged.
void AddEventSource(const std::wstring& program);

// Undoes that: libraries of other builds go here, too; this build's own belongs to whoever brought the program.
void RemoveEventSource(const std::wstring& program);

}  // namespace kiosk::service
