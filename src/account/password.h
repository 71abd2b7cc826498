// The kiosk account's password: known to nobody, kept nowhere but in Windows itself.
#pragma once

#include "win32/winapi.h"

#include <cstddef>

namespace kiosk::account {

// Up to 32 characters in place, never on the heap; overwritten with zeros when it goes out of scope or is moved from.
class Password {
 public:
  static constexpr std::size_t kLength = 32;

  Password() = default;
  Password(const Password&) = delete;
  Password& operator=(const Password&) = delete;
  Password(Password&& other) noexcept : size_(other.size_) {
    for (std::size_t i = 0; i < size_; ++i) {
      text_[i] = other.text_[i];
    }
    other.Wipe();
  }
  Password& operator=(Password&&) = delete;
  ~Password() { Wipe(); }

  // With a terminating NUL.
  [[nodiscard]] const wchar_t* Get() const noexcept { return text_; }
  [[nodiscard]] std::size_t Size() const noexcept { return size_; }
  [[nodiscard]] bool Empty() const noexcept { return size_ == 0; }

  // False when it is full.
  bool Append(wchar_t character) noexcept {
    if (size_ == kLength) {
      return false;
    }
    text_[size_++] = character;
    return true;
  }
  void Wipe() noexcept {
    SecureZeroMemory(text_, sizeof(text_));
    size_ = 0;
  }

 private:
  wchar_t text_[kLength + 1] = {};
  std::size_t size_ = 0;
};

// 32 characters, each of the alphabet equally likely, with an upper-case letter, a lower-case letter, a digit and
// another character among them. Empty when the system's generator refuses.
Password GenerateKioskPassword();

}  // namespace kiosk::account
