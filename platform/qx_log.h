#ifndef QXCURL_PLATFORM_QX_LOG_H
#define QXCURL_PLATFORM_QX_LOG_H
#include <cstdarg>
#include <functional>
#include <optional>
#include <sstream>
#include <string>

// Levels: 2 progress and decisions, 4 wire detail and warnings,
// 8 a libcurl option that could not be set, 16 errors.
enum QXLogLevel { QXLOG_PROGRESS = 2, QXLOG_DETAIL = 4, QXLOG_OPTION = 8, QXLOG_ERROR = 16 };
constexpr int QXLOG_CATEGORY = 5;

// Quiet by default. QXCURL_LOG ("stderr" or a file path) turns output on;
// QXCURL_LOG_LEVEL (2, 4, 8 or 16) drops messages below that level (default 2).
// The master configuration's keys of the same names apply when the
// environment says nothing (the configuration service hands them over with
// qxLogConfigure: the logger never reads the configuration itself). One line
// per message: time, pid, level, category, tag, text.
void logmsg(int level, int category, const char* tag, const char* text);
void logmsgf(int level, int category, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
void logmsgvf(int level, int category, const char* tag, const char* fmt, va_list ap);

// True when a message of this level would go anywhere (a sink or a
// destination); lets hot paths skip composing text nobody reads.
bool qxLogWanted(int level);

// Stream form: QXLOG(QXLOG_PROGRESS, "QXClientCURL::Get") << "x = [" << x << "]";
// Nothing after QXLOG(...) is evaluated unless the level is wanted (so no
// side effects there); the text is logged when the statement ends.
class QXLogStream {
 public:
  QXLogStream(int level, const char* tag, int category = QXLOG_CATEGORY);
  ~QXLogStream();
  QXLogStream(const QXLogStream&) = delete;
  QXLogStream& operator=(const QXLogStream&) = delete;
  template <class T>
  QXLogStream& operator<<(const T& v) {
    if (m_os) *m_os << v;
    return *this;
  }

 private:
  int m_level;
  int m_category;
  const char* m_tag;
  // Built only when the level is wanted: a quiet statement then costs no
  // stream construction at all.
  std::optional<std::ostringstream> m_os;
};
// Ends a QXLOG expression; lets the macro skip the whole statement, its
// arguments included, when the level is not wanted.
struct QXLogVoidify {
  void operator&(const QXLogStream&) const {}
};
// Not parenthesised: the caller's << must bind to the stream.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define QXLOG(level, tag) \
  !qxLogWanted(level) ? (void)0 : QXLogVoidify() & QXLogStream((level), (tag))
// NOLINTEND(bugprone-macro-parentheses)

// Tests capture messages in-process: the sink receives every message of every
// level (the threshold does not apply) until it is removed with nullptr.
using QXLogSink =
    std::function<void(int level, int category, const std::string& tag, const std::string& text)>;
void qxSetLogSink(QXLogSink sink);

// The destination and threshold the master configuration names ("" when it
// names none; dest already absolute or "stderr"). Takes effect at the next
// message.
void qxLogConfigure(const std::string& dest, const std::string& level);
// Reads QXCURL_LOG and QXCURL_LOG_LEVEL (environment, then what the
// configuration handed over) now instead of at the next once-a-second refresh.
void qxLogReconfigure();
#endif  // QXCURL_PLATFORM_QX_LOG_H
