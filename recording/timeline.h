// SPDX-License-Identifier: MIT
#ifndef VELTA_RECORDING_TIMELINE_H_
#define VELTA_RECORDING_TIMELINE_H_

#include <cstdint>
#include <deque>
#include <limits>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "PacketParser.h"
#include "RecvPacket.h"
#include "SendPacket.h"
#include "frames.h"
#include "recording.h"

namespace CLI {
class App;
}  // namespace CLI

namespace velta::tools {

/// Which part of a recording to use, and how to read it; the options that all its readers share.
struct Excerpt {
  std::string file;
  int joints = 0;   ///< joints per frame (n); 0 takes what the recording says
  double from = 0;  ///< seconds since the first record
  double to = std::numeric_limits<double>::infinity();

  /// Adds FILE, -n, --from and --to. Must live as long as command.
  void AddOptions(CLI::App& command);
};

/// One frame, or one change of the connection, of a recording.
struct Moment {
  std::uint64_t since_start_ns = 0;  ///< since the recording's first record, by the monotonic clock
  std::uint64_t wall_ns = 0;         ///< nanoseconds since the Unix epoch
  LinkEvent event = LinkEvent::kOpened;
  std::variant<std::monostate, SendPacket, RecvPacket> packet;  ///< of kToController, of kToHost

  const SendPacket* Command() const { return std::get_if<SendPacket>(&packet); }
  const RecvPacket* Status() const { return std::get_if<RecvPacket>(&packet); }
};

/// An excerpt of a recording as frames. A frame's time is that of the chunk that completed it; what was recorded before
/// the excerpt begins is read too, so that a frame never begins in the middle.
///
/// Errors:  as RecordingReader.
class Timeline {
 public:
  explicit Timeline(const Excerpt& excerpt);

  int Joints() const { return joints_; }  ///< joints per frame (n)
  const std::string& RecordedLink() const { return reader_.Header().link; }

  /// @return the next moment of the excerpt; nothing at its end, or when a stop was requested
  std::optional<Moment> Next();

  void Rewind();

  /// Bytes that belong to no good frame, up to here.
  std::uint64_t LostCommandBytes() const;
  std::uint64_t LostStatusBytes() const;

  /// Tells on standard error about a recording that was cut short; to be called at its end.
  void TellLostTail() const;

 private:
  void Cut(const Record& record, std::uint64_t since_start_ns);

  Excerpt excerpt_;
  RecordingReader reader_;
  int joints_;
  std::optional<std::uint64_t> start_ns_;
  sim::CommandFramer commands_;
  PacketParser statuses_;
  std::uint64_t command_bytes_ = 0, good_command_bytes_ = 0;
  std::uint64_t status_bytes_ = 0, good_status_bytes_ = 0;
  std::deque<Moment> ready_;
};

/// One number of a status record.
struct JointField {
  const char* name;  ///< as the status documents call it
  bool is_real;      ///< a 32-bit float; else an unsigned integer
  double (*value)(const rxJoint_t&);
};

/// All 24 numbers of a status record, in the frame's order.
const std::vector<JointField>& JointFields();

/// A duration or a point in time as seconds, exactly: "12.000000345".
std::string Seconds(std::uint64_t ns);

/// The shortest text that reads back as the same number; "nan", "inf", "-inf".
std::string Shortest(float value);

}  // namespace velta::tools

#endif  // VELTA_RECORDING_TIMELINE_H_
