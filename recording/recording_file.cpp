// SPDX-License-Identifier: MIT
#include "recording_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "counted.h"
#include "frame_stream.h"
#include "protocol.h"

namespace velta::recording {

namespace {

constexpr std::size_t kBufferSize = std::size_t{1} << 18;  // a system call for hundreds of records
static_assert(kBufferSize >= sizeof(RecordHead) + kMaxRecordBytes + kCrcSize, "a record stands in it whole");

std::string Reason() { return std::strerror(errno); }

}  // namespace

RecordingWriter::RecordingWriter(const std::string& path, const RecordingHeader& header, bool replace)
    : path_(path), file_(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (replace ? O_TRUNC : O_EXCL), 0666)) {
  if (file_.Get() < 0) {
    throw RecordingError(path + ": " +
                         (errno == EEXIST ? "there is such a file already (--force replaces it)" : Reason()));
  }
  Append(HeaderBytes(header.joints, header.link));
}

void RecordingWriter::Write(Event event, std::uint64_t monotonic_ns, std::uint64_t wall_ns, const char* bytes,
                            std::size_t size) {
  Append(RecordBytes(event, monotonic_ns, wall_ns, bytes, size));
}

void RecordingWriter::Append(const std::vector<char>& block) {
  std::size_t written = 0;
  while (written < block.size()) {
    const ssize_t count = write(file_.Get(), block.data() + written, block.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) {
      const std::string reason = Reason();
      if (ftruncate(file_.Get(), static_cast<off_t>(size_)) == 0)
        lseek(file_.Get(), static_cast<off_t>(size_), SEEK_SET);
      throw RecordingError(path_ + ": " + reason);
    }
    written += static_cast<std::size_t>(count);
  }
  size_ += block.size();
}

void RecordingWriter::Sync() {
  // A pipe or a device has no disk behind it.
  if (fsync(file_.Get()) != 0 && errno != EINVAL && errno != EROFS) throw RecordingError(path_ + ": " + Reason());
}

RecordingReader::RecordingReader(const std::string& path)
    : path_(path), file_(open(path.c_str(), O_RDONLY | O_CLOEXEC)), buffer_(kBufferSize) {
  if (file_.Get() < 0) throw RecordingError(path + ": " + Reason());
  const auto cut_short = [&path] { throw RecordingError(path + ": the recording ends within its header"); };
  FileHead head{};
  const std::size_t got = Buffer(sizeof head);
  if (got < kMagic.size() || !std::equal(kMagic.begin(), kMagic.end(), buffer_.begin())) {
    throw RecordingError(path + ": not a recording of velta record");
  }
  if (got < sizeof head) cut_short();
  std::memcpy(&head, buffer_.data(), sizeof head);
  if (head.version != kVersion) {
    throw RecordingError(path + ": a recording of version " + std::to_string(+head.version) + ", this program reads " +
                         std::to_string(kVersion));
  }
  if (head.link_length > kMaxLinkText) throw RecordingError(path + ": the recording's header is damaged");
  first_record_ = sizeof head + head.link_length + kCrcSize;
  if (Buffer(first_record_) < first_record_) cut_short();
  if (!wire::CrcIsRight(buffer_.data(), first_record_) || head.joints < 1 || head.joints > wire::kMaxJoints) {
    throw RecordingError(path + ": the recording's header is damaged");
  }
  header_.joints = head.joints;
  header_.link.assign(buffer_.data() + sizeof head, head.link_length);
  begin_ = position_ = first_record_;
}

std::size_t RecordingReader::Buffer(std::size_t size) {
  if (end_ - begin_ < size) {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  while (end_ - begin_ < size) {
    const ssize_t count = read(file_.Get(), buffer_.data() + end_, buffer_.size() - end_);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw RecordingError(path_ + ": " + Reason());
    if (count == 0) break;
    end_ += static_cast<std::size_t>(count);
  }
  return std::min(size, end_ - begin_);
}

bool RecordingReader::Next(Record& record) {
  const std::size_t got = Buffer(sizeof(RecordHead));
  if (got == 0) return false;
  if (buffer_[begin_] != kRecordMark) return EndOfRecords();
  if (got < sizeof(RecordHead)) {
    lost_tail_ = got;
    return false;
  }
  RecordHead head{};
  std::memcpy(&head, buffer_.data() + begin_, sizeof head);
  if (head.event > static_cast<std::uint8_t>(Event::kClosed)) Damaged("there is no such event");
  if (head.length > kMaxRecordBytes) Damaged("it is longer than any record");
  const std::size_t size = sizeof head + head.length + kCrcSize;
  if (const std::size_t whole = Buffer(size); whole < size) {
    lost_tail_ = whole;
    return false;
  }
  const char* const bytes = buffer_.data() + begin_;
  if (!wire::CrcIsRight(bytes, size)) Damaged("its checksum is wrong");
  record.event = static_cast<Event>(head.event);
  record.monotonic_ns = head.monotonic_ns;
  record.wall_ns = head.wall_ns;
  record.bytes = {bytes + sizeof head, head.length};
  begin_ += size;
  position_ += size;
  ++records_;
  return true;
}

/// After a power failure a file system may fill the file's last block with zeros.
bool RecordingReader::EndOfRecords() {
  lost_tail_ = 0;
  while (Buffer(1) > 0) {
    const std::string_view rest(buffer_.data() + begin_, end_ - begin_);
    if (rest.find_first_not_of('\0') != std::string_view::npos) Damaged("no record begins there");
    lost_tail_ += rest.size();
    begin_ = end_;
  }
  return false;
}

void RecordingReader::Rewind() {
  if (lseek(file_.Get(), static_cast<off_t>(first_record_), SEEK_SET) < 0) {
    throw RecordingError(path_ + ": " + Reason());
  }
  begin_ = end_ = 0;
  position_ = first_record_;
  records_ = 0;
  lost_tail_ = 0;
}

void RecordingReader::Damaged(const std::string& what) const {
  throw RecordingError(path_ + ": damaged at byte " + std::to_string(position_) + ", after " +
                       wire::Counted(records_, "good record") + ": " + what);
}

}  // namespace velta::recording
