// SPDX-License-Identifier: MIT
// Any text names the joints that the C library's number reading finds in its tokens.
#include <cerrno>
#include <limits>
#include <sstream>

#include "SendPacket.h"
#include "target.h"

namespace velta::fuzz {
namespace {

std::vector<int> Named(const std::string& ids, int n) {
  std::vector<int> named;
  if (ids == "all") {
    for (int i = 0; i < n; ++i) named.push_back(i);
    return named;
  }
  std::istringstream tokens(ids);
  for (std::string token; std::getline(tokens, token, '/');) {
    char* end = nullptr;
    errno = 0;
    const long id = std::strtol(token.c_str(), &end, 10);
    if (end != token.c_str() && errno == 0 && id >= 0 && id < n) named.push_back(static_cast<int>(id));
  }
  return named;
}

void Run(Input& in) {
  const int n = static_cast<int>(in.Below(40)) - 1;
  const std::string ids = in.Rest();
  const std::vector<int> expected = Named(ids, n);
  SendPacket packet(n);
  Check(packet.ParseIDString(ids) == expected, "the same joints in the same order");
  packet.SetCommonCommand(ids, ePacketOrder::RefPosition, 1, 2, 3, 4);
  for (int i = 0; i < n; ++i) {
    const bool named = std::count(expected.begin(), expected.end(), i) != 0;
    const txJoint_t& joint = packet.joints[static_cast<std::size_t>(i)];
    Check(joint.id == i && joint.order == (named ? 0x11 : 0) && joint.value4 == (named ? 4.0F : 0.0F),
          "named joints are commanded, the others are not");
  }
}

const Registered kTarget("id_string", Run);

}  // namespace
}  // namespace velta::fuzz
