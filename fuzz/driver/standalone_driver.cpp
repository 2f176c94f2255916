// Replays a seed corpus through LLVMFuzzerTestOneInput, then a bounded number
// of deterministic mutations of it, so fuzz targets run in every ctest pass
// without libFuzzer.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

static void loadDir(const std::string& dir, std::vector<std::string>& out) {
  DIR* d = opendir(dir.c_str());
  if (!d) return;
  while (dirent* e = readdir(d)) {
    std::string path = dir + "/" + e->d_name;
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    std::ifstream in(path, std::ios::binary);
    out.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  closedir(d);
}

static void run(const std::string& s) {
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(s.data()), s.size());
}

int main(int argc, char** argv) {
  long runs = 10000;
  std::vector<std::string> corpus;
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--runs=", 7) == 0)
      runs = std::atol(argv[i] + 7);
    else
      loadDir(argv[i], corpus);
  }
  corpus.emplace_back();
  for (const auto& s : corpus) run(s);

  std::mt19937 rng(12345);
  const char tokens[] = "{}[]\":,=#\\\r\n\t 0123456789-.eE";
  for (long i = 0; i < runs; ++i) {
    std::string s = corpus[rng() % corpus.size()];
    int edits = 1 + rng() % 8;
    for (int k = 0; k < edits; ++k) {
      size_t pos = s.empty() ? 0 : rng() % (s.size() + 1);
      switch (rng() % 5) {
        case 0:
          if (!s.empty() && pos < s.size()) s[pos] = static_cast<char>(rng());
          break;
        case 1:
          s.insert(pos, 1, tokens[rng() % (sizeof(tokens) - 1)]);
          break;
        case 2:
          if (pos < s.size()) s.erase(pos, 1 + rng() % 4);
          break;
        case 3:
          s.insert(pos, corpus[rng() % corpus.size()].substr(0, 32));
          break;
        case 4:
          if (!s.empty()) s.resize(rng() % (s.size() + 1));
          break;
      }
    }
    run(s);
  }
  std::printf("%zu seeds and %ld mutations ran\n", corpus.size(), runs);
  return 0;
}
