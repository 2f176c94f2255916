// Runs a shell command and keeps the first line it prints (the appliance
// script that names a user's session target).
//
//   std::string out;
//   int rc = ExecCustomScript().run("/usr/tarvo/arvion/qxa qxuserid", out);
//   // rc: 0; 20 first line too long (text still in out); 29 not started.
#ifndef QXCURL_EXEC_CUSTOM_SCRIPT_H
#define QXCURL_EXEC_CUSTOM_SCRIPT_H
#include <string>

#include "qxcurl/qxcurl_export.h"

// Runs a shell command and captures the first line it prints.
// Polymorphic, with its destructor out of line to anchor the type in the
// library; the members copy safely.
// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions)
class QX_API ExecCustomScript {
 public:
  ExecCustomScript() = default;
  virtual ~ExecCustomScript();

  // output receives the first line, its line feed kept (empty when nothing
  // was printed). 0; 20 when that line is 257 characters or longer (the text
  // is still returned); 29 when the command could not be started. The
  // command's exit status plays no part.
  int run(const char* cmd, std::string& output);
};
#endif  // QXCURL_EXEC_CUSTOM_SCRIPT_H
