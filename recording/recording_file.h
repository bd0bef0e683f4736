// SPDX-License-Identifier: MIT
#ifndef VELTA_RECORDING_RECORDING_FILE_H_
#define VELTA_RECORDING_RECORDING_FILE_H_

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "fd.h"
#include "record_bytes.h"

namespace velta::recording {

/// A recording that cannot be read or written, is damaged, or is none at all; one line that names the file, and says
/// where and what is wrong.
struct RecordingError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct RecordingHeader {
  int joints = 0;    ///< joints per frame (n), 1 to kMaxJoints
  std::string link;  ///< the controller's link
};

/// Writes a recording. Every record goes to the file in one write of its own, so a crash of the program costs nothing
/// that was recorded, and one in the middle of a write leaves an incomplete last record, which readers recognise.
///
/// Errors:  RecordingError. A record that did not fit (disk full) is taken back from the
///          file, so that the recording stays good.
/// Threads: no lock.
class RecordingWriter {
 public:
  /// @param replace  whether a file of that name may be overwritten
  RecordingWriter(const std::string& path, const RecordingHeader& header, bool replace);

  /// Parameters as those of RecordBytes.
  void Write(Event event, std::uint64_t monotonic_ns, std::uint64_t wall_ns, const char* bytes = nullptr,
             std::size_t size = 0);

  /// Has the file on the disk, not only in memory.
  void Sync();

  std::uint64_t Size() const { return size_; }  ///< bytes in the file

 private:
  void Append(const std::vector<char>& block);

  std::string path_;
  wire::Fd file_;
  std::uint64_t size_ = 0;
};

/// One record as it was read.
struct Record {
  Event event = Event::kToController;
  std::uint64_t monotonic_ns = 0;
  std::uint64_t wall_ns = 0;
  std::string_view bytes;  ///< what passed, 0 to kMaxRecordBytes; valid until the reader's next call
};

/// Reads a recording from front to back.
///
/// Errors:  RecordingError, also for another version of the format. What a crash leaves after the last whole record (an
///          incomplete record, or zeros that a file system has put there) is no error: the records end, and LostTail()
///          counts its bytes.
/// Threads: no lock.
class RecordingReader {
 public:
  explicit RecordingReader(const std::string& path);

  const RecordingHeader& Header() const { return header_; }

  /// @return false after the last whole record; record is unspecified then
  bool Next(Record& record);

  /// Bytes after the last whole record; known once Next() has returned false.
  std::uint64_t LostTail() const { return lost_tail_; }

  /// Starts again at the first record.
  void Rewind();

 private:
  /// Has that many of the file's next bytes at buffer_[begin_]. @return how many there are, less only at the file's end
  std::size_t Buffer(std::size_t size);
  bool EndOfRecords();
  [[noreturn]] void Damaged(const std::string& what) const;

  std::string path_;
  wire::Fd file_;
  std::vector<char> buffer_;
  std::size_t begin_ = 0, end_ = 0;  ///< of what was read and not yet taken
  RecordingHeader header_;
  std::uint64_t first_record_ = 0;  ///< offsets in the file
  std::uint64_t position_ = 0;
  std::uint64_t records_ = 0;
  std::uint64_t lost_tail_ = 0;
};

}  // namespace velta::recording

#endif  // VELTA_RECORDING_RECORDING_FILE_H_
