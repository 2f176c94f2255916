#ifndef QXCURL_BENCH_CLIENT_SCENARIOS_H
#define QXCURL_BENCH_CLIENT_SCENARIOS_H
// The rows of the client benchmark, shared by the parent (qxcurl_client_bench)
// and the child that measures one side (qxcurl_client_bench_child).

inline constexpr const char* kPath = "arvion/ping";

enum class Reuse { KeepAlive, Fresh, NewObject };

struct Scenario {
  const char* name;
  Reuse reuse;
};

inline constexpr Scenario kScenarios[] = {
    {"one client, kept-alive connection", Reuse::KeepAlive},
    {"one client, new connection per request (resumed TLS)", Reuse::Fresh},
    {"new client object per request", Reuse::NewObject},
};
#endif  // QXCURL_BENCH_CLIENT_SCENARIOS_H
