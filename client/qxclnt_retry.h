// What to do after a failed attempt, and when to try again: the connection
// retry rules shared by the synchronous and the asynchronous client.
//
// Both are pure: the decision reads only the outcome of the attempt (and asks
// whether a tunnel led to the right master only when a rule needs to know);
// the schedule depends only on the window and a random source.
//
//   qxretry::Attempt a{status, curlError, httpCode, tunnelUsed};
//   int next = qxretry::decideNextAction(a, [&] { return rightMaster(); }, tag);
//   for (int gap : qxretry::schedule(30, std::rand)) ...;
#ifndef QXCURL_CLIENT_QXCLNT_RETRY_H
#define QXCURL_CLIENT_QXCLNT_RETRY_H
#include <cstdint>
#include <functional>
#include <vector>

namespace qxretry {

// The retry window when neither the caller nor the configuration sets one,
// and the least window after a 502, 503, 406 or 415 in the asynchronous client.
constexpr int64_t kDefaultWindowSec = 30;

// Next-action codes of the perform loops.
enum NextAction {
  STOP = 0,          // return the status to the caller
  RETRY_DIRECT = 1,  // retry the connection directly
  NEXT_SILENT = 2,   // give up this candidate silently, take the next one
  RETRY_TUNNEL = 3,  // retry through the same tunnel
  NEXT_TUNNEL = 4,   // try the next tunnel
};

// The outcome of one attempt: the product status, libcurl's result, the HTTP
// code (after a failed transfer: the proxy's answer to CONNECT, 0 when none)
// and whether a tunnel was used.
struct Attempt {
  int status;
  int curlError;
  int64_t httpCode;
  bool tunnelUsed;
};

// Decides the next action (first matching rule wins) and logs its reasoning
// under tag. rightMaster is called only when a rule must know whether the
// tunnel reached the intended master.
int decideNextAction(const Attempt& attempt, const std::function<bool()>& rightMaster,
                     const char* tag);

// How a retry window of `seconds` is divided: `count` retries, one at a
// random second inside each `interval`, then one more sleep of `remainder`.
struct Plan {
  int count;
  int interval;
  int remainder;
};
Plan plan(int seconds);

// The sleeps between retries: for moment i = 1 + i*interval + rnd() % interval,
// the gaps between consecutive moments (so they add up to the moments).
std::vector<int> randomGaps(int count, int interval, const std::function<int()>& rnd);

}  // namespace qxretry
#endif  // QXCURL_CLIENT_QXCLNT_RETRY_H
