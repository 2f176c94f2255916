#include "qxcurl/exec_custom_script.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/qx_log.h"
#include "platform/qx_process.h"
#include "qxcurl/qx_status.h"

namespace {
constexpr size_t kLineBuffer = 1024;
// A first line longer than this (line feed included) is not a value we use.
constexpr size_t kMaxLine = 256;
}  // namespace

ExecCustomScript::~ExecCustomScript() = default;

int ExecCustomScript::run(const char* cmd, std::string& output) {
  static const char* tag = "ExecCustomScript::run";
  output.clear();
  if (cmd == nullptr) cmd = "";
  QXChildInfo child;
  FILE* stream = popen_r(cmd, "r", &child);
  if (stream == nullptr) {
    int err = errno;
    int closed = pclose_r(stream, nullptr);
    QXLOG(QXLOG_ERROR, tag) << "Unable to execute cmd:" << cmd << " :"
                            << " ,Error:" << err << "Pclose(true)=" << closed;
    return QX_ERR_EXEC;
  }
  char buf[kLineBuffer];
  memset(buf, 0, sizeof buf);
  int status = 0;
  if (fgets(buf, sizeof buf, stream) != nullptr) {
    status = strlen(buf) <= kMaxLine ? 0 : QX_ERR_BAD_ARGUMENT;
    QXLOG(QXLOG_PROGRESS, tag) << "cmd output=" << buf;
  }
  output = buf;
  pclose_r(stream, nullptr);
  QXLOG(QXLOG_PROGRESS, tag) << "cmd=" << cmd << " ,status=" << status << " ,Error=" << errno;
  return status;
}
