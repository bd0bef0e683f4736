// SPDX-License-Identifier: MIT
// Runs a target without a fuzzer, with any compiler: on its whole corpus, then on random inputs and random changes of
// corpus files, from a seed that is printed.
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include "target.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

void Run(const velta::fuzz::Target& target, const Bytes& bytes) {
  velta::fuzz::Input input(bytes.data(), bytes.size());
  target.run(input);
}

Bytes RandomInput(const std::vector<Bytes>& corpus, std::mt19937_64& random) {
  Bytes bytes(random() % (std::size_t{1} << (1 + random() % 10)));
  for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random());
  if (corpus.empty() || random() % 2 == 0) return bytes;
  Bytes changed = corpus[random() % corpus.size()];
  for (auto changes = random() % 8; changes-- > 0 && !changed.empty();) {
    changed[random() % changed.size()] = static_cast<std::uint8_t>(random());
  }
  if (random() % 2 == 0) changed.insert(changed.end(), bytes.begin(), bytes.end());
  return changed;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fputs("usage: velta_replay TARGET CORPUS_FOLDER_OR_FILE [RANDOM_INPUTS [SEED]]\n", stderr);
    return 2;
  }
  const auto& targets = velta::fuzz::Targets();
  const auto target = std::find_if(targets.begin(), targets.end(),
                                   [&](const auto& each) { return std::strcmp(each.name, argv[1]) == 0; });
  if (target == targets.end() || !std::filesystem::exists(argv[2])) {
    std::fprintf(stderr, "velta_replay: no target %s or no corpus %s\n", argv[1], argv[2]);
    return 2;
  }
  std::vector<std::filesystem::path> files;
  if (std::filesystem::is_directory(argv[2])) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[2])) files.push_back(entry.path());
  } else {
    files.emplace_back(argv[2]);
  }
  std::sort(files.begin(), files.end());
  std::vector<Bytes> corpus;
  for (const auto& path : files) {
    std::ifstream file(path, std::ios::binary);
    corpus.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    std::fprintf(stderr, "%s\n", path.filename().c_str());
    Run(*target, corpus.back());
  }
  const unsigned long count = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 0;
  const unsigned long seed = argc > 4 ? std::strtoul(argv[4], nullptr, 10) : std::random_device()();
  std::fprintf(stderr, "%s: %zu files, %lu random inputs, seed %lu\n", target->name, files.size(), count, seed);
  std::mt19937_64 random(seed);
  for (unsigned long i = 0; i < count; ++i) Run(*target, RandomInput(corpus, random));
  return 0;
}
