// Text that must not outlive its use: tokens, passwords, and the buffers they pass through.
#pragma once

#include "text/text.h"

#include <string>
#include <utility>

namespace kiosk::text {

// Overwritten with zeros when it goes out of scope, is moved from, or is replaced.
class Secret {
 public:
  Secret() = default;
  explicit Secret(std::string text) noexcept : text_(std::move(text)) { Wipe(text); }
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;
  Secret(Secret&& other) noexcept : text_(std::move(other.text_)) { Wipe(other.text_); }
  Secret& operator=(Secret&& other) noexcept {
    if (this != &other) {
      Wipe(text_);
      text_ = std::move(other.text_);
      Wipe(other.text_);
    }
    return *this;
  }
  ~Secret() { Wipe(text_); }

  [[nodiscard]] const std::string& Get() const noexcept { return text_; }
  [[nodiscard]] bool Empty() const noexcept { return text_.empty(); }

  // Appends without leaving a copy behind in memory that the text outgrew.
  void Append(std::string_view more) {
    if (text_.size() + more.size() > text_.capacity()) {
      std::string larger;
      larger.reserve((text_.size() + more.size()) * 2);
      larger = text_;
      Wipe(text_);
      text_ = std::move(larger);
    }
    text_.append(more);
  }

 private:
  std::string text_;
};

// Calls Wipe() of something else at the end of the scope, whichever way it is left.
template <typename Target>
class WipeOnExit {
 public:
  explicit WipeOnExit(Target& target) noexcept : target_(target) {}
  WipeOnExit(const WipeOnExit&) = delete;
  WipeOnExit& operator=(const WipeOnExit&) = delete;
  ~WipeOnExit() { target_.Wipe(); }

 private:
  Target& target_;
};

}  // namespace kiosk::text
