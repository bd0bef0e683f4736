// SPDX-License-Identifier: MIT
#ifndef VELTA_RECORDING_TIMELINE_H_
#define VELTA_RECORDING_TIMELINE_H_

#include <cstdint>
#include <deque>
#include <limits>
#include <optional>
#include <string>
#include <variant>

#include "RecvPacket.h"
#include "SendPacket.h"
#include "frame_stream.h"
#include "recording_file.h"

namespace velta::recording {

/// Which part of a recording to use, and how to read it.
struct Excerpt {
  std::string file;
  int joints = 0;             ///< joints per frame (n); 0 takes what the recording says
  std::uint64_t from_ns = 0;  ///< since the first record
  std::uint64_t to_ns = std::numeric_limits<std::uint64_t>::max();
};

/// One frame, or one change of the connection, of a recording.
struct Moment {
  std::uint64_t since_start_ns = 0;  ///< since the recording's first record, by the monotonic clock
  std::uint64_t wall_ns = 0;         ///< nanoseconds since the Unix epoch
  Event event = Event::kOpened;
  std::variant<std::monostate, SendPacket, RecvPacket> packet;  ///< of kToController, of kToHost

  const SendPacket* Command() const { return std::get_if<SendPacket>(&packet); }
  const RecvPacket* Status() const { return std::get_if<RecvPacket>(&packet); }
};

/// An excerpt of a recording as frames. A frame's time is that of the chunk that completed it; what was recorded before
/// the excerpt begins is read too, so that a frame never begins in the middle.
///
/// Errors:  as RecordingReader.
/// Threads: no lock.
class Timeline {
 public:
  explicit Timeline(const Excerpt& excerpt);

  int Joints() const { return joints_; }  ///< joints per frame (n)
  const std::string& File() const { return excerpt_.file; }
  const std::string& RecordedLink() const { return reader_.Header().link; }

  /// @return the next moment of the excerpt; nothing at its end, or when a stop was requested
  std::optional<Moment> Next();

  void Rewind();

  /// The bytes of both directions up to here, and what became of them.
  const wire::CommandStream& Commands() const { return commands_; }
  const wire::StatusStream& Statuses() const { return statuses_; }

  /// Bytes that a crash left after the last whole record; known at the end.
  std::uint64_t LostTail() const { return reader_.LostTail(); }

 private:
  void Cut(const Record& record, std::uint64_t since_start_ns);

  Excerpt excerpt_;
  RecordingReader reader_;
  int joints_;
  std::optional<std::uint64_t> start_ns_;
  wire::CommandStream commands_;
  wire::StatusStream statuses_;
  std::deque<Moment> ready_;
};

}  // namespace velta::recording

#endif  // VELTA_RECORDING_TIMELINE_H_
