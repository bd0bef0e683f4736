// SPDX-License-Identifier: MIT
// Any text, or a document made of decisions: it becomes exactly one whole packet, or nothing.
#include <cerrno>

#include "json_bridge.h"
#include "support/bytes.h"
#include "support/scripted_link.h"
#include "target.h"

namespace velta::fuzz {
namespace {

/// A document, and what it commands.
std::string Compose(Input& in, SendPacket& expected) {
  const unsigned arm = in.Byte();
  std::string text = "{\"armOrder\":\"" + std::to_string(arm) + "\",\"jointCommand\":[";
  expected.header.armOrder = static_cast<unsigned char>(arm);
  for (unsigned i = in.Below(64); i > 0; --i) {
    const int name = static_cast<int>(in.Below(8)) - 1;
    const int order = 3 * static_cast<int>(in.Byte());
    text += "{\"jointName\":\"" + std::to_string(name) + "\",\"jointOrder\":\"" + std::to_string(order) + "\"";
    float values[4];
    for (int v = 0; v < 4; ++v) {
      values[v] = static_cast<float>(in.Byte()) - 100;
      text += ",\"value" + std::to_string(v + 1) + "\":\"" + std::to_string(values[v]) + "\"";
    }
    text += i > 1 ? "}," : "}";
    if (name < 1 || name > expected.jointNum) continue;
    expected.SetCommonCommand(std::to_string(name - 1), order, values[0], values[1], values[2], values[3]);
  }
  return text + "]}";
}

void Run(Input& in) {
  const int n = static_cast<int>(in.Below(5));
  SendPacket expected(n);
  const unsigned form = in.Below(3);
  std::string text = form == 0 ? in.Rest() : Compose(in, expected);
  if (form == 2) {
    const std::vector<char> more = in.Take(in.Byte());
    text.replace(std::size_t{2} * in.Byte() % text.size(), in.Below(4), std::string(more.begin(), more.end()));
  }
  MasterControllerClient client(n);
  errno = ERANGE;  // as an earlier call of the host may leave it
  const bool taken = client.PushSendQueueJson(text, in.Flag());
  Check(taken || form != 1, "a whole document is taken");
  Check(client.GetSendBufferSize() == (taken ? 1 : 0), "one packet, or nothing");
  if (!taken) return;
  const SendPacket packet = client.PopSendQueue();
  for (int i = 0; i < n; ++i) Check(packet.joints[static_cast<std::size_t>(i)].id == i, "ids are positions");
  if (form != 1) return;
  expected.SetTimeStamp(packet.GetTimeStamp());
  Check(packet.GetCharVector() == expected.GetCharVector(), "exactly the document's command");
}

const Registered kTarget("command_json", Run);

}  // namespace
}  // namespace velta::fuzz
