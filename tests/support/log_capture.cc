// LogCapture lives apart from the other helpers: it needs the daemon's
// logger, which only the unit test binary links.
#include <unistd.h>

#include "support/test_util.h"
#include "utils/log.h"

namespace kestrix::test {

LogCapture::LogCapture(int level) : path_(dir_.File("log.txt")), level_(level) {
  OSL_SetLog(&level_, path_.c_str(), "kestrixd");
}

LogCapture::~LogCapture() {
  static int default_level = 2;
  OSL_SetLog(&default_level, "SCREEN", "kestrixd");
}

std::string LogCapture::Text() const { return ReadFile(path_); }

bool LogCapture::Contains(const std::string& needle) const {
  return Text().find(needle) != std::string::npos;
}

void LogCapture::Clear() { unlink(path_.c_str()); }

}  // namespace kestrix::test
