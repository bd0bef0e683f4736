// SPDX-License-Identifier: MIT
#ifndef VELTA_ANALYSIS_MONITOR_MODEL_H_
#define VELTA_ANALYSIS_MONITOR_MODEL_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "RecvPacket.h"
#include "frame_stream.h"
#include "timing.h"
#include "velta_session.h"

namespace velta::analysis {

/// What `velta monitor` shows, without the screen: it takes statuses in and gives texts.
///
/// Units:   times in ns of the monotonic clock; values as the controller sends them.
/// Threads: one at a time.
class MonitorModel {
 public:
  struct Column {
    const char* title;
    int width;  ///< characters
  };
  static constexpr std::array<Column, 9> kColumns = {{{"position", 12},
                                                      {"velocity", 12},
                                                      {"effort", 12},
                                                      {"current", 12},
                                                      {"temp", 8},
                                                      {"servo", 10},
                                                      {"mode", 11},
                                                      {"status", 11},
                                                      {"trajectory", 12}}};

  struct Cell {
    std::string text;
    bool changed = false;  ///< within the last second
    bool fault = false;
  };

  /// @param joints joints of the arm (n)
  explicit MonitorModel(int joints);

  /// @param take called with every status, in order
  void OnStatus(std::function<void(const RecvPacket&)> take) { on_status_ = std::move(take); }

  /// Takes bytes that arrived in one piece.
  void Take(const std::vector<char>& bytes, std::int64_t now_ns);

  /// Forgets an incomplete frame: a new connection starts at a frame's first byte.
  void Restart();

  bool HasStatus() const { return arrivals_.Count() > 0; }
  std::int64_t Statuses() const { return arrivals_.Count(); }
  std::size_t Joints() const { return last_.joints.size(); }

  /// "1000 Hz  age 0.40 ms  jitter 95.0 us  gaps 0  statuses 1234  discarded 0 bytes  bad CRC 0"
  std::string Traffic(std::int64_t now_ns) const;

  /// @return a cell per column of one joint (0-based), in the order of kColumns
  std::vector<Cell> Row(std::size_t joint, std::int64_t now_ns) const;

  /// The positions of one joint, newest at the right, as lines of characters below a line with their range.
  /// @param width   of each line, at least 1
  /// @param height  lines of the drawing, at least 1
  std::vector<std::string> History(std::size_t joint, std::size_t width, std::size_t height) const;

  /// One line for a log: traffic and the positions and states of all joints.
  std::string Line(std::int64_t now_ns) const;

 private:
  static constexpr std::int64_t kSampleNs = 50'000'000;
  static constexpr std::size_t kMostSamples = 1200;

  struct Joint {
    std::array<std::int64_t, kColumns.size()> changed_at{};  ///< 0: never
    std::deque<float> positions;                             ///< one per kSampleNs
  };

  std::uint64_t Discarded() const { return stream_.Discarded() - cut_off_; }
  void Compare(const RecvPacket& status, std::int64_t now_ns);
  std::function<void(const RecvPacket&)> on_status_;
  wire::StatusStream stream_;
  std::uint64_t cut_off_ = 0;  ///< bytes of frames that the end of a connection cut: not damaged
  RecvPacket last_;
  std::vector<Joint> joints_;
  Arrivals arrivals_;
  std::int64_t next_sample_ = 0;
};

/// What a session counts and no status shows:
/// "received 574000 bytes  sent 2 frames  reconnections 0  woke up late p99 12.0 us, missed 0 cycles"
std::string LinkLine(const SessionStatistics& statistics);

}  // namespace velta::analysis

#endif  // VELTA_ANALYSIS_MONITOR_MODEL_H_
