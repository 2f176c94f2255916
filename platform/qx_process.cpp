#include "platform/qx_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <mutex>

#include "platform/qx_log.h"
#include "qxcurl/qx_status.h"

extern char** environ;

namespace {

void recordWait(int wstatus, QXChildInfo& info) {
  info.exited = WIFEXITED(wstatus);
  info.exitStatus = info.exited ? WEXITSTATUS(wstatus) : -1;
  info.termSignal = WIFSIGNALED(wstatus) ? WTERMSIG(wstatus) : 0;
}

int waitChild(pid_t pid, int* wstatus) {
  for (;;) {
    pid_t r = waitpid(pid, wstatus, 0);
    if (r == pid) return 0;
    if (r < 0 && errno == EINTR) continue;
    return -1;
  }
}

std::mutex g_streamsMutex;
std::map<FILE*, pid_t> g_streams;

}  // namespace

int ProcessExec::executeCommand(const std::string& path, const std::vector<std::string>& args,
                                QXChildInfo& childInfo, const bool& wait) {
  childInfo = QXChildInfo();
  const char* tag = "ProcessExec::executeCommand";
  if (path.empty()) return QX_ERR_BAD_ARGUMENT;

  std::vector<char*> argv;
  argv.reserve(args.size() + 2);
  argv.push_back(const_cast<char*>(path.c_str()));
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);

  pid_t pid = -1;
  int rc = posix_spawn(&pid, path.c_str(), nullptr, nullptr, argv.data(), environ);
  if (rc != 0) {
    childInfo.spawnErrno = rc;
    QXLOG(QXLOG_ERROR, tag) << "Cannot start [" << path << "]: " << strerror(rc);
    return QX_ERR_EXEC;
  }
  childInfo.pid = pid;
  // Arguments are not logged: they may carry credentials.
  QXLOG(QXLOG_PROGRESS, tag) << "Started [" << path << "] pid = [" << pid << "]";
  if (!wait) return 0;

  int wstatus = 0;
  if (waitChild(pid, &wstatus) != 0) {
    childInfo.spawnErrno = errno;
    QXLOG(QXLOG_ERROR, tag) << "Cannot wait for pid [" << pid << "]: " << strerror(errno);
    return QX_ERR_EXEC;
  }
  recordWait(wstatus, childInfo);
  if (childInfo.exited && childInfo.exitStatus == 0) return 0;
  int status = childInfo.exited ? QX_ERR_CHILD_EXIT : QX_ERR_CHILD_SIGNAL;
  QXLOG(QXLOG_ERROR, tag) << "[" << path << "] " << getErrorReason(status, &childInfo);
  return status;
}

std::string ProcessExec::getErrorReason(int status, const QXChildInfo* childInfo) {
  switch (status) {
    case 0:
      return "success";
    case QX_ERR_BAD_ARGUMENT:
      return "no program given";
    case QX_ERR_EXEC: {
      std::string s = "could not be started";
      if (childInfo != nullptr && childInfo->spawnErrno != 0) {
        s += ": ";
        s += strerror(childInfo->spawnErrno);
      }
      return s;
    }
    case QX_ERR_CHILD_EXIT:
      return childInfo != nullptr ? "exited with code " + std::to_string(childInfo->exitStatus)
                                  : "exited with a non-zero code";
    case QX_ERR_CHILD_SIGNAL:
      if (childInfo != nullptr) {
        const char* name = sigdescr_np(childInfo->termSignal);
        return "ended by signal " + std::to_string(childInfo->termSignal) +
               (name != nullptr ? std::string(" (") + name + ")" : std::string());
      }
      return "ended by a signal";
    default:
      return "failed with status " + std::to_string(status);
  }
}

FILE* popen_r(const char* cmd, const char* mode, QXChildInfo* childInfo) {
  if (childInfo != nullptr) *childInfo = QXChildInfo();
  if (cmd == nullptr || mode == nullptr || (mode[0] != 'r' && mode[0] != 'w')) {
    errno = EINVAL;
    return nullptr;
  }
  bool reading = mode[0] == 'r';
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return nullptr;
  int parentEnd = reading ? fds[0] : fds[1];
  int childEnd = reading ? fds[1] : fds[0];

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, childEnd, reading ? STDOUT_FILENO : STDIN_FILENO);
  const char* argv[] = {"sh", "-c", cmd, nullptr};
  pid_t pid = -1;
  int rc = posix_spawn(&pid, "/bin/sh", &actions, nullptr, const_cast<char**>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(childEnd);
  if (rc != 0) {
    close(parentEnd);
    if (childInfo != nullptr) childInfo->spawnErrno = rc;
    errno = rc;
    return nullptr;
  }
  FILE* stream = fdopen(parentEnd, reading ? "r" : "w");
  if (stream == nullptr) {
    int e = errno;
    close(parentEnd);
    int ws;
    waitChild(pid, &ws);
    errno = e;
    return nullptr;
  }
  if (childInfo != nullptr) childInfo->pid = pid;
  std::lock_guard<std::mutex> guard(g_streamsMutex);
  g_streams[stream] = pid;
  return stream;
}

int pclose_r(FILE* stream, QXChildInfo* childInfo) {
  if (stream == nullptr) {
    errno = EINVAL;
    return -1;
  }
  pid_t pid = -1;
  {
    std::lock_guard<std::mutex> guard(g_streamsMutex);
    auto it = g_streams.find(stream);
    if (it == g_streams.end()) {
      errno = EINVAL;
      return -1;
    }
    pid = it->second;
    g_streams.erase(it);
  }
  (void)fclose(stream);  // the child's status below is what counts
  int wstatus = 0;
  if (waitChild(pid, &wstatus) != 0) return -1;
  if (childInfo != nullptr) {
    childInfo->pid = pid;
    recordWait(wstatus, *childInfo);
  }
  return wstatus;
}
