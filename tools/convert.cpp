// SPDX-License-Identifier: MIT
#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "MasterControllerClient.h"
#include "command.h"
#include "output_file.h"
#include "stop.h"
#include "timeline.h"

namespace velta::tools {

namespace {

struct Options {
  Excerpt excerpt;
  std::string format = "csv";
  std::string output = "-";
};

/// One row per status; joints count from 0, as in the ids of commands.
class CsvWriter {
 public:
  CsvWriter(std::ostream& out, int joints) : out_(out) {
    out_ << "time_s,wall_ns,timestamp,hostTimestamp,duration";
    for (int i = 0; i < joints; ++i) {
      for (const JointField& field : JointFields()) out_ << ",j" << i << '_' << field.name;
    }
    out_ << '\n';
  }

  void Write(const Moment& moment) {
    const RecvPacket* const status = moment.Status();
    if (status == nullptr) return;
    const rxHeader_t& header = status->header;
    row_ = Seconds(moment.since_start_ns) + ',' + std::to_string(moment.wall_ns) + ',' +
           std::to_string(+header.timestamp) + ',' + std::to_string(+header.hostTimestamp) + ',' +
           Shortest(+header.duration);
    for (const rxJoint_t& joint : status->joints) {
      for (const JointField& field : JointFields()) {
        const double value = field.value(joint);
        row_ += ',';
        row_ += field.is_real ? Shortest(static_cast<float>(value)) : std::to_string(static_cast<std::uint32_t>(value));
      }
    }
    out_ << row_ << '\n';
  }

 private:
  std::ostream& out_;
  std::string row_;
};

/// Told by the bytes: an argument of -0 is an argument.
bool CarriesNothing(const txJoint_t& joint) {
  std::array<char, sizeof joint> bytes;
  std::memcpy(bytes.data(), &joint, bytes.size());
  return std::all_of(bytes.begin() + 1, bytes.end(), [](char byte) { return byte == 0; });  // all but the id
}

/// A command as the document that MasterControllerClient::PushSendQueueJson takes, and its time stamp. Joints that
/// carry nothing are left out.
std::string CommandDocument(const SendPacket& command) {
  std::string text = "{\"timeStamp\":\"" + std::to_string(+command.header.timeStamp) + "\",\"armOrder\":\"" +
                     std::to_string(+command.header.armOrder) + "\",\"jointCommand\":[";
  const char* separator = "";
  for (std::size_t i = 0; i < command.joints.size(); ++i) {
    const txJoint_t& joint = command.joints[i];
    if (CarriesNothing(joint)) continue;
    text += separator + ("{\"jointName\":\"" + std::to_string(i + 1)) + "\",\"jointOrder\":\"" +
            std::to_string(+joint.order) + "\",\"value1\":\"" + Shortest(+joint.value1) + "\",\"value2\":\"" +
            Shortest(+joint.value2) + "\",\"value3\":\"" + Shortest(+joint.value3) + "\",\"value4\":\"" +
            Shortest(+joint.value4) + "\"}";
    separator = ",";
  }
  return text + "]}";
}

/// One line per moment, with the library's own documents inside.
class JsonLinesWriter {
 public:
  JsonLinesWriter(std::ostream& out, int joints) : out_(out), client_(joints) {}

  void Write(const Moment& moment) {
    out_ << "{\"time_s\":" << Seconds(moment.since_start_ns) << ",\"wall_ns\":\"" << moment.wall_ns << "\",\"event\":";
    if (const RecvPacket* const status = moment.Status()) {
      client_.PushRecvBuffer(*status);
      out_ << "\"status\",\"status\":" << client_.GetCurStateJson().at(0) << "}\n";
    } else if (const SendPacket* const command = moment.Command()) {
      out_ << "\"command\",\"command\":" << CommandDocument(*command) << "}\n";
    } else {
      out_ << (moment.event == LinkEvent::kOpened ? "\"opened\"}\n" : "\"closed\"}\n");
    }
  }

 private:
  std::ostream& out_;
  MasterControllerClient client_;  // without a link: it turns status packets into documents
};

template <typename Writer>
void WriteAll(Timeline& timeline, std::ostream& out) {
  Writer writer(out, timeline.Joints());
  Progress progress;
  while (const std::optional<Moment> moment = timeline.Next()) {
    writer.Write(*moment);
    if (!out) throw Failure("cannot write the output");
    if (progress.IsDue()) progress.Show("converted " + std::to_string(moment->since_start_ns / 1'000'000'000) + " s");
  }
  if (StopRequested()) throw Failure("stopped before the end of the recording");
}

int Run(const Options& options) {
  InstallStopHandler();
  Timeline timeline(options.excerpt);
  const auto write = options.format == "csv" ? WriteAll<CsvWriter> : WriteAll<JsonLinesWriter>;
  if (options.output == "-") {
    write(timeline, Out());
    timeline.TellLostTail();
    return 0;
  }
  OutputFile output(options.output);
  std::ofstream out(output.WorkingPath(), std::ios::binary);
  write(timeline, out);
  if (!out.flush()) throw Failure(options.output + ": cannot write it");
  output.Commit();
  timeline.TellLostTail();
  return 0;
}

}  // namespace

void AddConvert(CLI::App& app, Action& action) {
  const auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand("convert", "Turn a recording into CSV or JSON lines");
  options->excerpt.AddOptions(*command);
  command->add_option("-f,--format", options->format, "csv: a row per status frame; jsonl: a line per frame and event")
      ->check(CLI::IsMember({"csv", "jsonl"}))
      ->option_text("FORMAT [csv]");
  command->add_option("-o,--output", options->output, "Where to write to; - is standard output")
      ->option_text("FILE [-]");
  command->footer("Example:\n  velta convert run.vrec --from 2 --to 5 -o run.csv");
  command->callback([options, &action] { action = [options] { return Run(*options); }; });
}

}  // namespace velta::tools
