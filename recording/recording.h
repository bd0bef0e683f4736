// SPDX-License-Identifier: MIT
#ifndef VELTA_RECORDING_RECORDING_H_
#define VELTA_RECORDING_RECORDING_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "errors.h"
#include "fd.h"
#include "record_bytes.h"
#include "relay.h"

namespace velta::tools {

/// A recording that is damaged, or no recording at all; the text names the file, and where and what is wrong.
struct RecordingError : Failure {
  using Failure::Failure;
};

struct RecordingHeader {
  int joints = 0;    ///< joints per frame (n), 1 to kMaxJoints
  std::string link;  ///< the controller's link
};

/// Writes a recording. Every record goes to the file in one write of its own, so a crash of the program costs nothing
/// that was recorded, and one in the middle of a write leaves an incomplete last record, which readers recognise.
///
/// Errors:  Failure with the file's name and the reason. A record that did not fit (disk full) is taken back from the
///          file, so that the recording stays good.
/// Threads: no lock.
class RecordingWriter {
 public:
  /// @param replace  whether a file of that name may be overwritten
  RecordingWriter(const std::string& path, const RecordingHeader& header, bool replace);

  void Write(const Passage& passage);

  /// Has the file on the disk, not only in memory.
  void Sync();

  std::uint64_t Size() const { return size_; }  ///< bytes in the file

 private:
  void Append(const std::vector<char>& block);

  std::string path_;
  sim::Fd file_;
  std::uint64_t size_ = 0;
};

/// One record as it was read.
struct Record {
  LinkEvent event = LinkEvent::kToController;
  std::uint64_t monotonic_ns = 0;
  std::uint64_t wall_ns = 0;
  std::vector<char> bytes;
};

/// Reads a recording from front to back.
///
/// Errors:  RecordingError for a file that is no recording, is of another version or is damaged; Failure when it cannot
///          be read. What a crash leaves behind the last whole record (an incomplete record, or zeros that a file
///          system has put there) is no error: the records end, and LostTail() tells its bytes.
/// Threads: no lock.
class RecordingReader {
 public:
  explicit RecordingReader(const std::string& path);

  const RecordingHeader& Header() const { return header_; }

  /// @return false behind the last whole record; record is unspecified then
  bool Next(Record& record);

  /// Bytes behind the last whole record; known once Next() has returned false.
  std::uint64_t LostTail() const { return lost_tail_; }

  /// Starts again at the first record.
  void Rewind();

 private:
  struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };

  std::size_t Take(char* bytes, std::size_t size);
  bool EndOfRecords(const std::vector<char>& rest);
  [[noreturn]] void Damaged(const std::string& what) const;

  std::string path_;
  std::unique_ptr<std::FILE, CloseFile> file_;
  RecordingHeader header_;
  std::uint64_t first_record_ = 0;  ///< offsets in the file
  std::uint64_t position_ = 0;
  std::uint64_t records_ = 0;
  std::uint64_t lost_tail_ = 0;
};

}  // namespace velta::tools

#endif  // VELTA_RECORDING_RECORDING_H_
