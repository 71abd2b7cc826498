// What a client sends on a connection, from the first byte to the request text. Portable: no Windows here.
#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string_view>

namespace kiosk::pipe {

// Reading stops once this many bytes are there; the read that reaches it may have brought up to one chunk.
inline constexpr std::size_t kRequestLimit = 8192;
inline constexpr std::size_t kReadChunk = 1024;

// Collects the pieces of one request in place, so that no second copy of a password is left anywhere, and wipes itself
// at the end. A caller who is not yet verified decides how the pieces are cut: the work is linear in their bytes, save
// for a text that is neither object, array nor string, of which no command is made.
class RequestBuffer {
 public:
  RequestBuffer() noexcept = default;
  RequestBuffer(const RequestBuffer&) = delete;
  RequestBuffer& operator=(const RequestBuffer&) = delete;
  ~RequestBuffer();

  // Where the next read may put its bytes: one chunk, or nothing once the request is over.
  [[nodiscard]] std::span<char> Room() noexcept;

  // Takes in the first `count` bytes of the room. At most Room().size().
  void Added(std::size_t count);

  // True once nothing more is to be read: a newline came, the limit is reached, or the text, without the white space
  // around it, is a complete JSON value.
  [[nodiscard]] bool Over() const noexcept { return newline_ || complete_ || size_ >= kRequestLimit; }

  // Everything that came, without the white space (as C's isspace sees it) around it. Points into this buffer.
  [[nodiscard]] std::string_view Request() const noexcept;

 private:
  void Scan(char byte) noexcept;

  std::array<char, kRequestLimit + kReadChunk - 1> bytes_;
  std::size_t size_ = 0;
  std::size_t scanned_ = 0;
  std::size_t valueEnd_ = 0;  // where the first string, array or object ended; 0 before that
  std::size_t triedEnd_ = 0;  // end of the text that did not parse
  int depth_ = 0;             // open brackets
  bool begun_ = false;        // a byte other than white space came
  bool scalar_ = false;       // that byte begins neither string, array nor object
  bool inText_ = false;
  bool escaped_ = false;
  bool newline_ = false;
  bool complete_ = false;
};

}  // namespace kiosk::pipe
