#ifndef QXCURL_PLATFORM_QX_PROCESS_H
#define QXCURL_PLATFORM_QX_PROCESS_H
#include <sys/types.h>

#include <cstdio>
#include <string>
#include <vector>

// What is known about a child once it has been started (and, when waited for,
// once it has ended).
struct QXChildInfo {
  pid_t pid = -1;
  bool exited = false;  // ended by exit(); exitStatus is valid
  int exitStatus = -1;  // exit code when exited
  int termSignal = 0;   // signal that ended it, 0 when none
  int spawnErrno = 0;   // errno of a failed start, 0 when it started
};

class ProcessExec {
 public:
  // Runs the program at path (no shell, no PATH search) with args as argv[1..];
  // argv[0] is the path. The child inherits the environment and the standard
  // descriptors. With wait true the call blocks until the child ends.
  // Returns 0 when the child was started (and, when waited for, exited with
  // 0); 20 for an empty path; 29 when it could not be started; 30 when it
  // exited with a non-zero code; 31 when a signal ended it. childInfo is
  // filled in every case.
  static int executeCommand(const std::string& path, const std::vector<std::string>& args,
                            QXChildInfo& childInfo, const bool& wait = true);
  // One line of English for a status of executeCommand, with the child's
  // details when childInfo is given ("exited with code 3").
  static std::string getErrorReason(int status, const QXChildInfo* childInfo = nullptr);
};

// A popen that keeps its children apart per stream (safe with threads): runs
// cmd through "/bin/sh -c". mode "r" reads the child's standard output, "w"
// writes its standard input. childInfo (optional) receives the pid. Null
// with errno set on failure.
FILE* popen_r(const char* cmd, const char* mode, QXChildInfo* childInfo);
// Closes the stream and waits for its child. Returns the wait status as
// waitpid gives it, or -1 (errno set) for a null or unknown stream. childInfo
// (optional) receives the exit details.
int pclose_r(FILE* stream, QXChildInfo* childInfo);
#endif  // QXCURL_PLATFORM_QX_PROCESS_H
