// SPDX-License-Identifier: MIT
#include "velta_statistics.h"

#include <utility>

std::string velta::ToJson(const Statistics& statistics) {
  const std::pair<const char*, std::uint64_t> members[] = {
      // in ascending byte order
      {"bytes_discarded", statistics.bytes_discarded},
      {"bytes_received", statistics.bytes_received},
      {"commands_confirmed", statistics.commands_confirmed},
      {"commands_dropped", statistics.commands_dropped},
      {"commands_given_up", statistics.commands_given_up},
      {"commands_queued", statistics.commands_queued},
      {"frames_bad_crc", statistics.frames_bad_crc},
      {"frames_received", statistics.frames_received},
      {"frames_sent", statistics.frames_sent},
      {"frames_sent_again", statistics.frames_sent_again},
      {"packets_refused", statistics.packets_refused},
      {"packets_waiting", statistics.packets_waiting},
      {"reconnections", statistics.reconnections},
  };
  std::string json;
  for (const auto& [key, value] : members) {
    json += json.empty() ? "{\"" : ",\"";
    json += key;
    json += "\":" + std::to_string(value);
  }
  return json += '}';
}
