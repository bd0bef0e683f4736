// SPDX-License-Identifier: MIT
#ifndef VELTA_ANALYSIS_PLOT_DATA_H_
#define VELTA_ANALYSIS_PLOT_DATA_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fields.h"
#include "timeline.h"

/// What `velta plot` draws, apart from how it is drawn. Times in s since the recording's start.
namespace velta::analysis {

struct PlotPoint {
  double time, value;
};

struct PlotText {
  double time, height;
  std::string text;
};

/// @param names  of fields, separated by commas
/// @throws UsageError for a name that no field has
std::vector<const recording::JointField*> ReadFields(const std::string& names);

/// A curve of any length in as many points as a picture can show: the least and the greatest value per bin of time, so
/// that no peak is lost.
class PlotCurve {
 public:
  static constexpr std::size_t kBins = 2000;  ///< more than a picture has columns

  /// A value that is not finite is left out.
  void Add(std::size_t bin, PlotPoint point);

  std::vector<PlotPoint> Points() const;  ///< ascending in time, at most two per bin

 private:
  struct Bin {
    PlotPoint least, greatest;
  };
  std::vector<std::optional<Bin>> bins_{kBins};
};

/// What happened: a row of points per kind, with words where there is room for them.
class PlotEvents {
 public:
  enum Kind { kLink, kCommand, kMode, kTrajectory, kFault, kKinds };  ///< the height of its points

  explicit PlotEvents(int joints);

  void Add(const recording::Moment& moment, std::size_t bin, double time);

  std::vector<PlotPoint> Points() const;

  /// A text stands above its point, or below where it would be written over its neighbour; one that fits nowhere is
  /// left out.
  std::vector<PlotText> Texts(double from, double to) const;

 private:
  struct Mark {
    Kind kind;
    double time;
    std::string text;
  };
  struct JointState {
    int mode = 0, control = 0, trajectory = 0;
    std::uint32_t fault = 0;
  };
  using Words = std::map<std::string, std::vector<std::size_t>>;  ///< a word, and the joints that it is about

  void AddName(bool of_arm, int code, const std::string& name);
  std::string Name(bool of_arm, int code) const;
  std::string Text(const Words& words) const;
  void AddMark(Kind kind, std::size_t bin, double time, const std::string& text);
  void AddCommand(const SendPacket& command, std::size_t bin, double time);
  void AddStatus(const RecvPacket& status, std::size_t bin, double time);

  std::map<std::pair<bool, int>, std::string> names_;
  std::vector<JointState> before_;
  bool is_first_ = true;
  std::string last_command_;
  std::array<std::optional<std::size_t>, kKinds> last_bin_;
  std::vector<Mark> marks_;
};

/// The curves and events of an excerpt, which is read twice: once for its length, once for its content.
class PlotData {
 public:
  /// @param fields        a panel each
  /// @param joints        which to draw, a curve each
  /// @param joint_number  joints of the arm (n)
  PlotData(std::vector<const recording::JointField*> fields, std::vector<int> joints, int joint_number);

  void Measure(const recording::Moment& moment);  ///< the first reading
  void Add(const recording::Moment& moment);      ///< the second

  bool HasStatus() const { return has_status_; }
  double From() const { return from_; }
  double To() const { return to_ > from_ ? to_ : from_ + 1e-3; }
  const std::vector<const recording::JointField*>& Fields() const { return fields_; }
  const std::vector<int>& Joints() const { return joints_; }
  const std::vector<PlotCurve>& Curves() const { return curves_; }  ///< a field's joints, then the next field's
  const PlotEvents& Events() const { return events_; }

 private:
  std::vector<const recording::JointField*> fields_;
  std::vector<int> joints_;
  std::vector<PlotCurve> curves_;
  PlotEvents events_;
  bool has_status_ = false;
  double from_ = std::numeric_limits<double>::infinity();
  double to_ = 0;
};

}  // namespace velta::analysis

#endif  // VELTA_ANALYSIS_PLOT_DATA_H_
