#include "json/value.h"

#include <functional>
#include <new>

#include "json/number_text.h"
#include "text/text.h"

namespace kiosk::json {
namespace {

// Below this many members a scan is faster than hashing, and most objects need no index at all.
constexpr std::size_t kScanLimit = 16;

// A shared empty T that is never destroyed: threads may still read it while the process ends.
template <typename T>
const T& Empty() noexcept {
  alignas(T) static std::byte storage[sizeof(T)];
  static const T* const empty = new (storage) T();
  return *empty;
}

template <typename T>
const T& OrEmpty(const Box<T>* box) noexcept {
  return box != nullptr && box->get() != nullptr ? *box->get() : Empty<T>();
}

}  // namespace

std::size_t Members::Find(std::string_view key) const noexcept {
  if (slots_.empty()) {
    for (std::size_t i = 0; i < keys.size(); ++i) {
      if (keys[i] == key) {
        return i;
      }
    }
    return kNotFound;
  }
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t slot = std::hash<std::string_view>{}(key)&mask; slots_[slot] != 0; slot = (slot + 1) & mask) {
    const std::size_t position = slots_[slot] - 1;
    if (keys[position] == key) {
      return position;
    }
  }
  return kNotFound;
}

void Members::Set(std::string key, Value value) {
  const std::size_t position = Find(key);
  if (position != kNotFound) {
    values[position].Wipe();
    values[position] = std::move(value);
    return;
  }
  keys.push_back(std::move(key));
  values.push_back(std::move(value));
  if (keys.size() * 2 > slots_.size() && keys.size() > kScanLimit) {
    Rebuild();
  } else if (!slots_.empty()) {
    Place(keys.size() - 1);
  }
}

void Members::Place(std::size_t position) noexcept {
  const std::size_t mask = slots_.size() - 1;
  std::size_t slot = std::hash<std::string_view>{}(keys[position]) & mask;
  while (slots_[slot] != 0) {
    slot = (slot + 1) & mask;
  }
  slots_[slot] = static_cast<std::uint32_t>(position + 1);
}

// At most half of the slots are ever taken; the growth by four keeps rebuilding linear in total.
void Members::Rebuild() {
  std::size_t size = kScanLimit * 4;
  while (size < keys.size() * 4) {
    size *= 2;
  }
  slots_.assign(size, 0);
  for (std::size_t i = 0; i < keys.size(); ++i) {
    Place(i);
  }
}

Value Value::Array() {
  Value value;
  value.payload_ = Box<std::vector<Value>>();
  return value;
}

Value Value::Array(std::vector<Value> items) {
  Value value;
  value.payload_ = Box<std::vector<Value>>(std::move(items));
  return value;
}

Value Value::Object() {
  Value value;
  value.payload_ = Box<Members>();
  return value;
}

bool Value::boolean() const noexcept {
  const bool* boolean = std::get_if<bool>(&payload_);
  return boolean != nullptr && *boolean;
}

double Value::number() const noexcept {
  const double* number = std::get_if<double>(&payload_);
  return number != nullptr ? *number : 0.0;
}

const std::string& Value::text() const noexcept { return OrEmpty(std::get_if<Box<std::string>>(&payload_)); }

const std::vector<Value>& Value::items() const noexcept {
  return OrEmpty(std::get_if<Box<std::vector<Value>>>(&payload_));
}

const std::vector<std::string>& Value::keys() const noexcept {
  return OrEmpty(std::get_if<Box<Members>>(&payload_)).keys;
}

const std::vector<Value>& Value::values() const noexcept {
  return OrEmpty(std::get_if<Box<Members>>(&payload_)).values;
}

void Value::Append(Value value) {
  if (auto* items = std::get_if<Box<std::vector<Value>>>(&payload_)) {
    items->Mutable().push_back(std::move(value));
  }
}

Value& Value::Set(std::string key, Value value) {
  if (auto* members = std::get_if<Box<Members>>(&payload_)) {
    members->Mutable().Set(std::move(key), std::move(value));
  }
  return *this;
}

void Value::Reserve(std::size_t count) {
  if (count == 0) {
    return;  // an empty container needs no allocation at all
  }
  if (auto* items = std::get_if<Box<std::vector<Value>>>(&payload_)) {
    items->Mutable().reserve(count);
  } else if (auto* members = std::get_if<Box<Members>>(&payload_)) {
    members->Mutable().keys.reserve(count);
    members->Mutable().values.reserve(count);
  }
}

std::string* Value::EditText() {
  auto* text = std::get_if<Box<std::string>>(&payload_);
  return text != nullptr ? &text->Mutable() : nullptr;
}

void Value::Wipe() noexcept {
  const auto wipeAll = [](std::vector<Value>& values) {
    for (Value& value : values) {
      value.Wipe();
    }
  };
  if (auto* string = std::get_if<Box<std::string>>(&payload_); string != nullptr && string->get() != nullptr) {
    text::Wipe(string->Mutable());
  } else if (auto* items = std::get_if<Box<std::vector<Value>>>(&payload_);
             items != nullptr && items->get() != nullptr) {
    wipeAll(*items->get());
  } else if (auto* members = std::get_if<Box<Members>>(&payload_); members != nullptr && members->get() != nullptr) {
    for (std::string& key : members->get()->keys) {
      text::Wipe(key);
    }
    wipeAll(members->get()->values);
  }
  *this = Value();
}

bool operator==(const Value& left, const Value& right) noexcept {
  return left.kind() == right.kind() && left.boolean() == right.boolean() && left.number() == right.number() &&
         left.text() == right.text() && left.items() == right.items() && left.keys() == right.keys() &&
         left.values() == right.values();
}

const Value& Member(const Value& object, std::string_view key) noexcept {
  const Members& members = OrEmpty(std::get_if<Box<Members>>(&object.payload_));
  const std::size_t position = members.Find(key);
  return position != Members::kNotFound ? members.values[position] : Empty<Value>();
}

std::string AsString(const Value& value, std::string_view fallback) {
  switch (value.kind()) {
    case Kind::kString:
      return value.text();
    case Kind::kBool:
      return value.boolean() ? "true" : "false";
    case Kind::kNumber: {
      std::string text;
      AppendNumber(text, value.number());
      return text;
    }
    default:
      return std::string(fallback);
  }
}

}  // namespace kiosk::json
