// SPDX-License-Identifier: MIT
#ifndef VELTA_BRIDGE_MESSAGES_H_
#define VELTA_BRIDGE_MESSAGES_H_

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MasterControllerClient.h"
#include "RecvPacket.h"
#include "SendPacket.h"
#include "control.h"
#include "velta_session.h"

/// The texts that pass between the bridge and whoever views or commands: JSON objects, one per message.
namespace velta::bridge {

constexpr std::size_t kMaxMessage = std::size_t{64} * 1024;  ///< bytes of one message
constexpr int kMaxNesting = 100;                             ///< objects and arrays inside each other
constexpr std::size_t kMaxId = 256;                          ///< bytes of a command's id, as JSON

/// @return whether objects and arrays are nested deeper than levels; strings are passed over
bool NestsDeeperThan(std::string_view text, int levels);

/// One message to the bridge.
struct Message {
  enum class Kind { kUnknown, kTake, kKeep, kGive, kRearm, kStop, kToken, kCommand };

  Kind kind = Kind::kUnknown;
  std::string id;        ///< a command's id as JSON, `"7"` or `7`; empty: none
  bool confirm = false;  ///< of a command
  std::string text;      ///< the command document, or the token
};

/// Never throws. {"stop":true} wins over whatever else the object holds.
Message ParseMessage(std::string_view text);

/// {"control":{"held":true,"yours":false}}
std::string ControlText(bool held, bool yours);
/// {"outcome":{"id":"7","outcome":"discarded","reason":"link lost"}}; without what is empty
std::string OutcomeText(const std::string& id, std::string_view outcome, std::string_view reason);
/// {"event":{"kind":"lost","text":"...","time":"2026-01-31T12:00:00.123Z","value":0.5}}
std::string EventText(const Event& event);
/// {"state":DOCUMENT}
std::string StateText(const std::string& document);
/// {"error":"..."}
std::string ErrorText(std::string_view error);

/// Turns documents into packets and packets into documents as the library's client does, of which it holds one that is
/// never connected.
///
/// Threads: one thread at a time.
class Codec {
 public:
  explicit Codec(int joints) : client_(joints) {}

  std::optional<SendPacket> ReadCommand(const std::string& document);
  std::string WriteState(const RecvPacket& status);

 private:
  MasterControllerClient client_;
};

/// Reads the command documents of a file, one after another: the frames that stop the arm.
/// @throw std::runtime_error with one line for a file that cannot be read or holds anything else, or nothing
std::vector<SendPacket> ReadStopDocuments(const std::string& path, int joints);

}  // namespace velta::bridge

#endif  // VELTA_BRIDGE_MESSAGES_H_
