// Reading the login password: never from the command line, where other
// users of the host could read it.
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string>

#include "qxcurl_tool.h"

namespace qxtool {
namespace {

// A password is one line; anything longer is not one.
constexpr size_t kMaxPasswordBytes = 4096;

// Terminal settings to put back if a signal ends the prompt.
struct termios g_savedTerminal;
volatile sig_atomic_t g_echoOff = 0;

extern "C" void restoreEchoAndResignal(int sig) {
  if (g_echoOff) tcsetattr(STDIN_FILENO, TCSANOW, &g_savedTerminal);
  signal(sig, SIG_DFL);
  raise(sig);
}

// One line from fd, without its line end, read byte by byte so that nothing
// after the line is consumed. False when nothing could be read.
bool readLine(int fd, std::string& line) {
  line.clear();
  bool any = false;
  char c;
  for (;;) {
    ssize_t n = read(fd, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    any = true;
    if (c == '\n') break;
    if (line.size() >= kMaxPasswordBytes) {
      wipe(line);
      throw UsageError("the password is longer than a line may be");
    }
    line.push_back(c);
  }
  while (!line.empty() && line.back() == '\r') line.pop_back();
  return any;
}

// Echo off and signal handlers that put it back, for the life of the object.
class QuietTerminal {
 public:
  QuietTerminal() {
    if (tcgetattr(STDIN_FILENO, &g_savedTerminal) != 0) {
      throw UsageError("cannot turn off echo on the terminal");
    }
    struct sigaction handler = {};
    handler.sa_handler = restoreEchoAndResignal;
    sigemptyset(&handler.sa_mask);
    for (int i = 0; i < kSignalCount; ++i) sigaction(kSignals[i], &handler, &m_previous[i]);
    struct termios quiet = g_savedTerminal;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ECHONL;
    g_echoOff = 1;
    if (tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet) != 0) {
      restore();
      throw UsageError("cannot turn off echo on the terminal");
    }
  }
  ~QuietTerminal() { restore(); }
  QuietTerminal(const QuietTerminal&) = delete;
  QuietTerminal& operator=(const QuietTerminal&) = delete;

 private:
  static constexpr int kSignalCount = 4;
  static constexpr int kSignals[kSignalCount] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

  void restore() {
    tcsetattr(STDIN_FILENO, TCSANOW, &g_savedTerminal);
    g_echoOff = 0;
    for (int i = 0; i < kSignalCount; ++i) sigaction(kSignals[i], &m_previous[i], nullptr);
  }

  struct sigaction m_previous[kSignalCount];
};

std::string promptWithoutEcho(const std::string& prompt) {
  // Echo goes off before the prompt shows, so that nothing typed after it is
  // echoed or flushed away.
  QuietTerminal quiet;
  std::fputs(prompt.c_str(), stderr);
  std::fflush(stderr);
  std::string password;
  if (!readLine(STDIN_FILENO, password)) throw UsageError("no password given");
  return password;
}

}  // namespace

std::string readPassword(const std::string& file, const std::string& prompt) {
  std::string password;
  if (!file.empty()) {
    FILE* f = std::fopen(file.c_str(), "re");
    if (f == nullptr) throw UsageError("cannot read --password-file " + file);
    bool got = readLine(fileno(f), password);
    std::fclose(f);
    if (!got) throw UsageError("--password-file " + file + " is empty");
  } else if (isatty(STDIN_FILENO)) {
    password = promptWithoutEcho(prompt);
  } else if (!readLine(STDIN_FILENO, password)) {
    throw UsageError("no password on standard input");
  }
  if (password.empty()) throw UsageError("the password is empty");
  return password;
}

}  // namespace qxtool
