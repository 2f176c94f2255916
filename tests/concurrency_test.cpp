// Many processes and threads of one host sharing the certificate-login token:
// nobody reads half a file, nobody fails, and a due token brings one login
// for the whole host. Also built with ThreadSanitizer (scripts/test).
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "qxcurl/login_with_cert_manager.h"
#include "qxcurl/qxclnt_curl.h"
#include "testing/fixture/qx_test_env.h"
#include "tests/test_support.h"

namespace {

constexpr int kProcesses = 16;
constexpr int kRequests = 200;
constexpr int kRounds = 4;  // the token falls due at the start of each

// Shared by the test and its child processes (anonymous shared mapping).
struct Shared {
  pthread_barrier_t barrier;
  std::atomic<long long> clock;
};
Shared* g_shared = nullptr;
time_t sharedClock() { return static_cast<time_t>(g_shared->clock.load()); }

// A token as the master issues it: three base64url parts, the middle one
// holding the claims. Anything else was torn or mixed up.
bool wellFormed(const std::string& token) {
  if (token.compare(0, 3, "eyJ") != 0) return false;
  size_t parts = 1, partLen = 0;
  for (char c : token) {
    if (c == '.') {
      if (partLen == 0) return false;
      ++parts;
      partLen = 0;
    } else if (std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_') {
      ++partLen;
    } else {
      return false;
    }
  }
  return parts == 3 && partLen > 0;
}

class ConcurrencyTest : public QXEmulatorTest {
 protected:
  size_t logins() { return emulator().requestCount("arvion/loginwithcert"); }
};

// Child i: kRequests token requests; at the start of every round all
// children meet and the shared clock jumps so that the cached token is due.
// Writes the tokens it got, one a line, and exits with the number of failed
// or malformed answers.
[[noreturn]] void child(int index, LoginWithCertManager& mgr, const std::string& out) {
  int bad = 0;
  std::set<std::string> seen;
  for (int i = 0; i < kRequests; ++i) {
    if (i % (kRequests / kRounds) == 0) {
      if (pthread_barrier_wait(&g_shared->barrier) == PTHREAD_BARRIER_SERIAL_THREAD) {
        g_shared->clock += 3400;  // a 3600 s token issued last round has 200 s left
      }
      pthread_barrier_wait(&g_shared->barrier);
    }
    std::string token;
    if (mgr.getToken("localhost", token, false, nullptr) != 0 || !wellFormed(token)) ++bad;
    seen.insert(token);
  }
  std::ofstream f(out + "." + std::to_string(index));
  for (const auto& t : seen) f << t << "\n";
  f.close();
  _exit(bad > 100 ? 100 : bad);
}

TEST_F(ConcurrencyTest, ProcessesLogInOncePerRefresh) {
  void* mem =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(MAP_FAILED, mem);
  g_shared = new (mem) Shared;
  pthread_barrierattr_t attr;
  pthread_barrierattr_init(&attr);
  pthread_barrierattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
  ASSERT_EQ(0, pthread_barrier_init(&g_shared->barrier, &attr, kProcesses));
  g_shared->clock = time(nullptr) - 3400;
  LoginWithCertManager::T_setClock(sharedClock);

  auto mgr = certLoginManager(root(), "localhost", emulator().port());
  const std::string out = root().path("tmp/seen");
  const int failed = qxRunChildren(kProcesses, [&](int i) -> int { child(i, *mgr, out); });
  LoginWithCertManager::T_setClock(nullptr);
  pthread_barrier_destroy(&g_shared->barrier);
  munmap(mem, sizeof(Shared));

  std::set<std::string> tokens;
  for (int i = 0; i < kProcesses; ++i) {
    std::ifstream f(out + "." + std::to_string(i));
    for (std::string line; std::getline(f, line);) tokens.insert(line);
  }
  EXPECT_EQ(0, failed);  // failed or torn answers
  EXPECT_EQ(static_cast<size_t>(kRounds), logins());
  EXPECT_EQ(static_cast<size_t>(kRounds), tokens.size());
}

// Eight threads, each with its own client, share JWTLock and the token file
// (the client makes its own certificate-login manager). Under
// ThreadSanitizer this is the race check of the client, TLS and token code.
TEST_F(ConcurrencyTest, ThreadsWithTheirOwnClients) {
  constexpr int kThreads = 8;
  constexpr int kPerThread = 6;
  std::atomic<int> failures{0};
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      QXClientCURL c("localhost", emulator().port(), CERT_TYPE_HOST, QXCURL_USE_TOKEN, nullptr, "",
                     true, false, false, "", "", "", "", "", "", false, true);
      c.setConnectRetryTimeout(0);
      ++ready;
      while (ready < kThreads) std::this_thread::yield();  // start together
      for (int i = 0; i < kPerThread; ++i) {
        if (c.Get("arvion/config/hosts") != 0 || c.getHttpCode() != 200) ++failures;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(0, failures.load());
  EXPECT_EQ(1u, logins());
}

}  // namespace
