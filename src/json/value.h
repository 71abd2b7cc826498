#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace kiosk::json {

enum class Kind { kNull = 0, kBool = 1, kNumber = 2, kString = 3, kArray = 4, kObject = 5 };

class Value;

// Owner of a payload on the heap that copies deeply and moves by pointer. Without a payload (a moved-from box) it reads
// as an empty T. A text thus keeps one address while its value travels, and wiping it leaves no earlier copy behind.
template <typename T>
class Box {
 public:
  Box() noexcept = default;
  explicit Box(T payload) : payload_(std::make_unique<T>(std::move(payload))) {}
  Box(const Box& other) : payload_(other.payload_ ? std::make_unique<T>(*other.payload_) : nullptr) {}
  Box(Box&&) noexcept = default;
  Box& operator=(const Box& other) {
    if (this != &other) {
      *this = Box(other);
    }
    return *this;
  }
  Box& operator=(Box&&) noexcept = default;
  ~Box() = default;

  const T* get() const noexcept { return payload_.get(); }
  T* get() noexcept { return payload_.get(); }
  T& Mutable() {
    if (!payload_) {
      payload_ = std::make_unique<T>();
    }
    return *payload_;
  }

 private:
  std::unique_ptr<T> payload_;
};

// An object's members in insertion order. Few keys are scanned; more of them also get a hash index, so that neither
// lookup nor the detection of repeated keys is quadratic on a large object.
struct Members {
  static constexpr std::size_t kNotFound = static_cast<std::size_t>(-1);

  std::size_t Find(std::string_view key) const noexcept;
  void Set(std::string key, Value value);

  std::vector<std::string> keys;
  std::vector<Value> values;

 private:
  void Place(std::size_t position) noexcept;
  void Rebuild();

  std::vector<std::uint32_t> slots_;  // open addressing: position + 1, 0 is free; empty while keys are scanned
};

// A JSON value that owns its children; texts are UTF-8 by convention and not checked. Moving never throws and leaves an
// unspecified value; copying is deep. Copy, destruction, comparison, wiping and serialising recurse once per level of
// nesting: parsed values have at most 64 levels, whoever builds a value bounds it alike.
class Value {
 public:
  // Conversions are implicit so that members read as Set("ok", true). An integer is kept as a double: exact up to 2^53.
  // Pointers never turn into bools, nor characters into numbers.
  Value() noexcept = default;
  // NOLINTBEGIN(google-explicit-constructor): as said above
  Value(double number) noexcept : payload_(number) {}
  Value(const char* text) : Value(std::string(text)) {}
  Value(std::string_view text) : Value(std::string(text)) {}
  Value(std::string text) : payload_(Box<std::string>(std::move(text))) {}
  template <std::same_as<bool> T>
  Value(T boolean) noexcept : payload_(boolean) {}
  template <std::integral T>
  requires(!std::same_as<T, bool> && !std::same_as<T, char> && !std::same_as<T, wchar_t>) Value(T number)
  noexcept : payload_(static_cast<double>(number)) {}
  Value(std::nullptr_t) = delete;
  // NOLINTEND(google-explicit-constructor)

  static Value Array();
  static Value Array(std::vector<Value> items);
  static Value Object();

  Kind kind() const noexcept { return static_cast<Kind>(payload_.index()); }
  bool IsNull() const noexcept { return kind() == Kind::kNull; }
  bool IsBool() const noexcept { return kind() == Kind::kBool; }
  bool IsNumber() const noexcept { return kind() == Kind::kNumber; }
  bool IsString() const noexcept { return kind() == Kind::kString; }
  bool IsArray() const noexcept { return kind() == Kind::kArray; }
  bool IsObject() const noexcept { return kind() == Kind::kObject; }

  // Each returns what its kind holds, and false, 0 or something empty for any other kind.
  bool boolean() const noexcept;
  double number() const noexcept;
  const std::string& text() const noexcept;
  const std::vector<Value>& items() const noexcept;
  const std::vector<std::string>& keys() const noexcept;
  const std::vector<Value>& values() const noexcept;  // parallel to keys()

  // Append needs an array and Set an object; on another kind both do nothing.
  // A repeated key keeps its first place and takes the last value; the value that it replaces is wiped.
  void Append(Value value);
  Value& Set(std::string key, Value value);
  // Room for `count` items or members of an array or object.
  void Reserve(std::size_t count);
  // The text to be built in place; null unless a string.
  std::string* EditText();

  // Overwrites every text of the tree, keys included, with zeros in a way that survives optimisation, then becomes
  // null.
  void Wipe() noexcept;

  // Equal kinds and payloads; objects need the same members in the same order.
  friend bool operator==(const Value& left, const Value& right) noexcept;

 private:
  friend const Value& Member(const Value& object, std::string_view key) noexcept;

  // In the order of Kind.
  std::variant<std::monostate, bool, double, Box<std::string>, Box<std::vector<Value>>, Box<Members>> payload_;
};

// The member of that name, or a shared null when there is none or `object` is no object. The reference is good until
// the object is changed or ends.
const Value& Member(const Value& object, std::string_view key) noexcept;

// A string's text, "true" or "false" of a bool, a number as the serialiser prints it; `fallback` for any other kind.
std::string AsString(const Value& value, std::string_view fallback = {});

}  // namespace kiosk::json
