// Making, checking and opening the library's volume and file cookies.
#include "plugins/localfs/cookies.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace localfs {

namespace {

constexpr uint8_t kVolMagic[2] = {'L', 'V'}, kFileMagic[2] = {'L', 'F'};
constexpr uint8_t kVolFormat = 1;
constexpr size_t kDevAt = 8, kUuidAt = 16;
constexpr size_t kHandleTypeAt = 4, kHandleAt = 8, kMaxHandle = kCookieSize - kHandleAt;

// The kernel's file_handle with room for the largest handle a cookie holds.
class Handle {
 public:
  Handle() { header()->handle_bytes = kMaxHandle; }
  struct file_handle* header() {
    return reinterpret_cast<struct file_handle*>(storage_);
  }

 private:
  alignas(struct file_handle) unsigned char storage_[sizeof(struct file_handle) + kMaxHandle] = {};
};

}  // namespace

void MakeVolCookie(const VolCookie& c, uint8_t* out) {
  memset(out, 0, kCookieSize);
  memcpy(out, kVolMagic, 2);
  out[2] = c.exportIndex;
  out[3] = kVolFormat;
  memcpy(out + kDevAt, &c.dev, sizeof c.dev);
  memcpy(out + kUuidAt, c.uuid, sizeof c.uuid);
}

bool ParseVolCookie(const uint8_t* in, VolCookie* c) {
  if (in == nullptr || memcmp(in, kVolMagic, 2) != 0 || in[3] != kVolFormat ||
      std::any_of(in + 4, in + kDevAt, [](uint8_t b) { return b != 0; })) {
    return false;
  }
  c->exportIndex = in[2];
  memcpy(&c->dev, in + kDevAt, sizeof c->dev);
  memcpy(c->uuid, in + kUuidAt, sizeof c->uuid);
  return true;
}

int MakeFileCookie(int fd, uint8_t exportIndex, uint8_t* out) {
  Handle h;
  struct file_handle* fh = h.header();
  int mountId = 0;
  if (name_to_handle_at(fd, "", fh, &mountId, AT_EMPTY_PATH) != 0) {
    return errno == EOVERFLOW ? -ENAMETOOLONG : -errno;
  }
  memset(out, 0, kCookieSize);
  memcpy(out, kFileMagic, 2);
  out[2] = exportIndex;
  out[3] = static_cast<uint8_t>(fh->handle_bytes);
  memcpy(out + kHandleTypeAt, &fh->handle_type, sizeof fh->handle_type);
  memcpy(out + kHandleAt, fh->f_handle, fh->handle_bytes);
  return 0;
}

bool ParseFileCookie(const uint8_t* in, uint8_t* exportIndex) {
  if (in == nullptr || memcmp(in, kFileMagic, 2) != 0 || in[3] == 0 || in[3] > kMaxHandle ||
      std::any_of(in + kHandleAt + in[3], in + kCookieSize, [](uint8_t b) { return b != 0; })) {
    return false;
  }
  *exportIndex = in[2];
  return true;
}

int OpenFileCookie(int mountFd, const uint8_t* cookie, int flags) {
  Handle h;
  struct file_handle* fh = h.header();
  fh->handle_bytes = cookie[3];
  memcpy(&fh->handle_type, cookie + kHandleTypeAt, sizeof fh->handle_type);
  memcpy(fh->f_handle, cookie + kHandleAt, cookie[3]);
  int fd = open_by_handle_at(mountFd, fh, flags | O_CLOEXEC);
  return fd >= 0 ? fd : -errno;
}

}  // namespace localfs
