// SPDX-License-Identifier: MIT
#ifndef VELTA_STATISTICS_H_
#define VELTA_STATISTICS_H_

#include <cstdint>
#include <string>

#include "velta_export.h"

namespace velta {

/// What one client has received, sent and dropped since its construction; a copy, taken from any thread by
/// MasterControllerClient::GetStatistics(). The values of one copy may be from slightly different moments. A simulator
/// counts snapshots as frames received, and the packets that it interprets as frames sent, and as confirmed if they ask.
struct Statistics {
  std::uint64_t bytes_received = 0;      ///< read from the link
  std::uint64_t frames_received = 0;     ///< status frames with a right CRC
  std::uint64_t frames_bad_crc = 0;      ///< frame-sized pieces that were dropped for a wrong CRC
  std::uint64_t bytes_discarded = 0;     ///< bytes of no good frame: garbage before start marks, and bad frames
  std::uint64_t packets_refused = 0;     ///< good packets that the full receive buffer did not take
  std::uint64_t packets_waiting = 0;     ///< gauge: packets in the receive buffer
  std::uint64_t commands_queued = 0;     ///< gauge: packets in the plain queue
  std::uint64_t frames_sent = 0;         ///< command frames given to the link, those sent again included
  std::uint64_t frames_sent_again = 0;   ///< after a time-out
  std::uint64_t commands_confirmed = 0;  ///< echoes that ended a confirmation wait
  std::uint64_t commands_given_up = 0;   ///< after the fifth time-out
  std::uint64_t commands_dropped = 0;    ///< emptied from the plain queue when a command was given up
  std::uint64_t reconnections = 0;       ///< links opened again by Connect() or ReConnect()
};

/// @return one compact JSON object; the keys are the members' names in ascending byte order, the values JSON numbers
VELTA_API std::string ToJson(const Statistics& statistics);

}  // namespace velta

#endif  // VELTA_STATISTICS_H_
