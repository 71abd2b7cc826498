#include "zip_archive.h"

#include <array>
#include <concepts>

namespace kioskctl {
namespace {

constexpr std::uint16_t kVersion20 = 20;  // of the format
constexpr std::uint16_t kNamesAreUtf8 = 0x800;
constexpr std::uint16_t kStored = 0;

constexpr std::array<std::uint32_t, 256> MakeCrcTable() {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t byte = 0; byte < table.size(); ++byte) {
    std::uint32_t remainder = byte;
    for (int bit = 0; bit < 8; ++bit) {
      remainder = (remainder >> 1) ^ ((remainder & 1U) != 0 ? 0xedb88320U : 0U);
    }
    table[byte] = remainder;
  }
  return table;
}

std::uint32_t Crc32(std::string_view bytes) {
  static constexpr std::array<std::uint32_t, 256> kTable = MakeCrcTable();
  std::uint32_t crc = 0xffffffffU;
  for (const char byte : bytes) {
    crc = kTable[(crc ^ static_cast<unsigned char>(byte)) & 0xffU] ^ (crc >> 8);
  }
  return ~crc;
}

// Each number with its lowest byte first.
template <std::unsigned_integral... Numbers>
void Append(std::string& out, Numbers... numbers) {
  const auto one = [&out](auto number) {
    for (std::size_t i = 0; i < sizeof(number); ++i) {
      out += static_cast<char>((number >> (8 * i)) & 0xffU);
    }
  };
  (one(numbers), ...);
}

std::uint32_t Size(std::string_view bytes) { return static_cast<std::uint32_t>(bytes.size()); }

constexpr std::uint16_t kNone16 = 0;
constexpr std::uint32_t kNone32 = 0;

}  // namespace

void ZipArchive::Add(std::string_view name, std::string_view content) {
  const std::uint32_t at = Size(file_);
  std::string shared;  // by the member's own header and its entry in the directory
  Append(shared, kVersion20, kNamesAreUtf8, kStored, time_, date_, Crc32(content), Size(content), Size(content),
         static_cast<std::uint16_t>(name.size()), kNone16 /* extra field */);

  Append(file_, std::uint32_t{0x04034b50});
  file_.append(shared).append(name).append(content);

  Append(directory_, std::uint32_t{0x02014b50}, kVersion20);
  directory_ += shared;
  Append(directory_, kNone16 /* comment */, kNone16 /* disk */, kNone16, kNone32 /* attributes */, at);
  directory_ += name;
  ++count_;
}

std::string ZipArchive::Finish() {
  const std::uint32_t at = Size(file_);
  file_ += directory_;
  Append(file_, std::uint32_t{0x06054b50}, kNone16, kNone16 /* disks */, count_, count_, Size(directory_), at,
         kNone16 /* comment */);
  return std::move(file_);
}

}  // namespace kioskctl
