// SPDX-License-Identifier: MIT
#include "target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  velta::fuzz::Input input(data, size);
  velta::fuzz::Targets().front().run(input);
  return 0;
}
