#include "branding/branding_cache.h"

#include "branding/branding_folder.h"
#include "branding/branding_record.h"
#include "enrolment/auth_client.h"
#include "enrolment/enrolment.h"
#include "json/serialise.h"
#include "log/log.h"
#include "win32/clock.h"
#include "win32/hash.h"
#include "win32/stop.h"
#include "win32/wide_text.h"

#include <algorithm>

namespace kiosk::branding {
namespace {

constexpr std::size_t kMaxPhotoSize = 16'777'216;
constexpr wchar_t kRecordName[] = L"branding.json";
// A photo of the largest size then needs 0.5 Mbit/s.
constexpr std::uint32_t kPhotoDeadline = 300'000;
// After so long no further download begins: the worker is to check in again.
constexpr std::uint64_t kDownloadTime = 60'000;
constexpr std::uint64_t kFirstDelay = 60'000;
constexpr std::uint64_t kLongestDelay = 600'000;

// What this process knows of a photo that is listed.
struct Known {
  std::string digest;
  // The file as it was when its bytes were hashed and found right; no size: never.
  DWORD volume = 0;
  std::uint64_t index = 0, size = 0, time = 0;
  // The file could not be read: that a download replaced it says little until it is found right.
  bool unread = false;
  // Downloads that failed or say little, and until which tick count none is tried again.
  int failures = 0;
  std::uint64_t notBefore = 0;
};

// Serialises whole runs; the folder's own lock is taken and given back inside.
win32::Lock runLock{win32::LockRank::kBrandingRun};

std::vector<Known>& KnownPhotos() REQUIRES(runLock) {
  static auto* const known = new std::vector<Known>;
  return *known;
}

std::uint64_t Join(DWORD high, DWORD low) noexcept { return (static_cast<std::uint64_t>(high) << 32) | low; }

std::wstring PathOf(std::wstring_view name) { return std::wstring(kBrandingFolder) + L"\\" + std::wstring(name); }

class Run {
 public:
  Run(std::optional<json::Value> branding, const std::string& token) : branding_(std::move(branding)), token_(token) {}

  // The compiler's analysis loses sight of a lock in an optional: here and in Fetch it looks away.
  void Go() REQUIRES(runLock) NO_THREAD_SAFETY_ANALYSIS {
    if (!Enter()) {
      return;
    }
    if (!branding_) {
      RemoveWhatIsCached();
      return;
    }
    if (!folders_.emplace().Hold()) {
      return;
    }
    const win32::Deadline downloads(kDownloadTime);
    for (Known& photo : ListedPhotos()) {
      if (IsCached(photo) || downloads.Passed() || win32::TickCount() < photo.notBefore) {
        continue;
      }
      if (!Fetch(photo)) {
        return;
      }
    }
    RemoveOthers();
    WriteRecord();
  }

 private:
  // Nothing is changed unless the terminal is still what it was when it checked in.
  bool Enter() {
    lock_.emplace(FolderLock());
    return !win32::StopRequested() && enrolment::StillEnrolled(token_);
  }
  void Leave() {
    folders_.reset();
    lock_.reset();
  }

  static void RemoveWhatIsCached() REQUIRES(FolderLock()) {
    if (GetFileAttributesW(kBrandingFolder) != INVALID_FILE_ATTRIBUTES && RemoveCache()) {
      log::Log(log::kNotice, log::kKiosk, "branding: the tenant has none; the cached branding is removed");
    }
  }

  // What is known of the listed photos, in their order. Nothing is kept about others.
  std::vector<Known>& ListedPhotos() REQUIRES(runLock) {
    std::vector<Known>& known = KnownPhotos();
    std::vector<Known> listed;
    for (std::string& digest : PhotoDigests(*branding_)) {
      const auto found =
          std::find_if(known.begin(), known.end(), [&](const Known& photo) { return photo.digest == digest; });
      listed.push_back(found != known.end() ? std::move(*found) : Known{.digest = std::move(digest)});
    }
    known = std::move(listed);
    return known;
  }

  // Whether the photo needs no download. What stands in its place and is not the photo is removed; what cannot be read
  // stays until a download takes its place.
  static bool IsCached(Known& photo) REQUIRES(FolderLock()) {
    const std::wstring path = PathOf(win32::ToWide(photo.digest));
    CachedFile file = OpenCached(path);
    if (file.state == CachedFile::State::kMissing) {
      return false;
    }
    if (file.state == CachedFile::State::kBusy) {
      return true;  // can be neither read nor replaced now
    }
    if (file.state == CachedFile::State::kOpen) {
      const BY_HANDLE_FILE_INFORMATION& info = file.info;
      Known seen{.digest = photo.digest,
                 .volume = info.dwVolumeSerialNumber,
                 .index = Join(info.nFileIndexHigh, info.nFileIndexLow),
                 .size = Join(info.nFileSizeHigh, info.nFileSizeLow),
                 .time = win32::FileTimeValue(info.ftLastWriteTime)};
      if (photo.size != 0 && seen.volume == photo.volume && seen.index == photo.index && seen.size == photo.size &&
          seen.time == photo.time) {
        return true;
      }
      const std::optional<std::string> content = ReadCached(file, kMaxPhotoSize);
      if (!content) {
        photo.unread = true;
        return false;
      }
      const std::string digest = win32::Sha256Hex(*content);
      if (digest == photo.digest) {
        photo = std::move(seen);
      }
      if (digest == photo.digest || digest.empty()) {
        return true;  // right; or Windows could not hash it: it stays, and the next run looks at it again
      }
      file.handle.Reset();
    }
    LogHourly(log::kWarn, "branding: removing " + win32::ToNarrow(path) + ": not the photo of that digest");
    RemoveCached(path);
    return false;
  }

  // Downloads and stores one photo, the lock given back for as long as the portal takes. False when the run is to end.
  bool Fetch(Known& photo) NO_THREAD_SAFETY_ANALYSIS {
    ResetEvent(DownloadEnd());
    Leave();
    const enrolment::AuthReply reply =
        enrolment::AuthRequest(L"GET", "/api/kiosk/branding/photos/" + photo.digest, {}, token_, kMaxPhotoSize,
                               enrolment::kAcceptImage, kPhotoDeadline, DownloadEnd());
    if (!Enter() || !folders_.emplace().Hold()) {
      return false;
    }
    const std::string& bytes = reply.body.Get();
    const std::string problem = ProblemOf(reply, photo.digest);
    bool stored = false;
    if (!problem.empty()) {
      log::Log(log::kWarn, log::kKiosk, "branding photo %s not cached: %s", photo.digest.c_str(), problem.c_str());
    } else if (WriteCached(PathOf(win32::ToWide(photo.digest)), bytes)) {
      log::Log(log::kNotice, log::kKiosk, "branding photo %s cached (%zu bytes)", photo.digest.c_str(), bytes.size());
      stored = !photo.unread;
    }
    if (stored) {
      photo.failures = 0;
    } else {
      Postpone(photo);
    }
    return true;
  }

  static std::string ProblemOf(const enrolment::AuthReply& reply, const std::string& digest) {
    const std::string& bytes = reply.body.Get();
    if (reply.answered == 0) {
      return reply.error;
    }
    if (reply.status != 200) {
      return "HTTP " + std::to_string(reply.status);
    }
    if (bytes.empty()) {
      return "empty or too large";  // of one that is too large nothing is handed on
    }
    return win32::Sha256Hex(bytes) == digest ? "" : "the bytes do not match the digest";
  }

  // A photo that never succeeds is not to be fetched by every terminal every 30 s.
  static void Postpone(Known& photo) {
    ++photo.failures;
    if (photo.failures > 1) {
      const int doublings = std::min(photo.failures - 2, 10);
      photo.notBefore = win32::TickCount() + std::min(kFirstDelay << doublings, kLongestDelay);
    }
  }

  void RemoveOthers() const REQUIRES(FolderLock()) {
    std::vector<std::wstring> names = {kRecordName};
    for (const std::string& digest : PhotoDigests(*branding_)) {
      names.push_back(win32::ToWide(digest));
    }
    RemoveAllBut(names);
  }

  void WriteRecord() const REQUIRES(FolderLock()) {
    // Repaired where the portal's text was no UTF-8, so that every reader takes it.
    const std::string text = win32::ToNarrow(win32::ToWide(json::Serialise(*branding_)));
    const std::wstring path = PathOf(kRecordName);
    std::optional<std::string> content = "";
    {
      const CachedFile file = OpenCached(path);
      if (file.state == CachedFile::State::kOpen) {
        content = ReadCached(file, text.size());
      }
      if (file.state == CachedFile::State::kBusy || content == text ||
          (file.state == CachedFile::State::kForeign && !RemoveCached(path))) {
        return;
      }
    }
    // One that cannot be read is written in each run, without a word.
    if (enrolment::StillEnrolled(token_) && WriteCached(path, text) && content) {
      log::Log(log::kNotice, log::kKiosk, "branding: \"%s\" with %zu photo(s)",
               json::Member(*branding_, "displayName").text().c_str(),
               json::Member(*branding_, "photos").items().size());
    }
  }

  std::optional<json::Value> branding_;
  const std::string& token_;
  // In this order: the folders are let go before the lock is.
  std::optional<win32::LockGuard> lock_;
  std::optional<HeldFolders> folders_;
};

}  // namespace

void ApplyBranding(const json::Value& branding, const std::string& tenantId, const std::string& token) {
  const win32::LockGuard guard(runLock);
  Run(NormaliseBranding(branding, tenantId), token).Go();
}

}  // namespace kiosk::branding
