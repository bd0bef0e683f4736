// SPDX-License-Identifier: MIT
#ifndef VELTA_RECORDING_EXPORTS_H_
#define VELTA_RECORDING_EXPORTS_H_

#include <iosfwd>
#include <string>

#include "MasterControllerClient.h"
#include "timeline.h"

namespace velta::recording {

/// Writes moments of a recording as text.
class Export {
 public:
  virtual ~Export() = default;
  virtual void Write(const Moment& moment) = 0;
};

/// One row per status; joints count from 0, as in the ids of commands.
class CsvExport : public Export {
 public:
  /// Writes the row of titles.
  CsvExport(std::ostream& out, int joints);
  void Write(const Moment& moment) override;

 private:
  std::ostream& out_;
};

/// One JSON document a line and moment, with the library's own documents inside.
class JsonLinesExport : public Export {
 public:
  JsonLinesExport(std::ostream& out, int joints) : out_(out), client_(joints) {}
  void Write(const Moment& moment) override;

 private:
  std::ostream& out_;
  MasterControllerClient client_;  // without a link: it turns status packets into documents
};

/// A command as the document that MasterControllerClient::PushSendQueueJson takes, and its time stamp. Joints that
/// carry nothing are left out.
std::string CommandDocument(const SendPacket& command);

}  // namespace velta::recording

#endif  // VELTA_RECORDING_EXPORTS_H_
