// SPDX-License-Identifier: MIT
#include "recording_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "counted.h"
#include "frame_stream.h"
#include "protocol.h"

namespace velta::recording {

namespace {

bool CrcIsRight(const std::vector<char>& block) {
  std::uint16_t stored = 0;
  std::memcpy(&stored, block.data() + block.size() - kCrcSize, sizeof stored);
  return stored == CalcCrc16(reinterpret_cast<const unsigned char*>(block.data()),
                             static_cast<unsigned short>(block.size() - kCrcSize));
}

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

RecordingReader::RecordingReader(const std::string& path) : path_(path), file_(std::fopen(path.c_str(), "rbe")) {
  if (!file_) throw RecordingError(path + ": " + Reason());
  std::setvbuf(file_.get(), nullptr, _IOFBF, std::size_t{1} << 18);  // a system call for hundreds of records
  std::vector<char> block(sizeof(FileHead));
  FileHead head{};
  const std::size_t got = Take(block.data(), block.size());
  std::memcpy(&head, block.data(), sizeof head);
  if (got < kMagic.size() || !std::equal(kMagic.begin(), kMagic.end(), block.begin())) {
    throw RecordingError(path + ": not a recording of velta record");
  }
  const auto cut_short = [&path] { throw RecordingError(path + ": the recording ends within its header"); };
  if (got < sizeof head) cut_short();
  if (head.version != kVersion) {
    throw RecordingError(path + ": a recording of version " + std::to_string(+head.version) + ", this program reads " +
                         std::to_string(kVersion));
  }
  if (head.link_length > kMaxLinkText) throw RecordingError(path + ": the recording's header is damaged");
  block.resize(sizeof head + head.link_length + kCrcSize);
  const std::size_t rest = block.size() - sizeof head;
  if (Take(block.data() + sizeof head, rest) < rest) cut_short();
  if (!CrcIsRight(block) || head.joints < 1 || head.joints > wire::kMaxJoints) {
    throw RecordingError(path + ": the recording's header is damaged");
  }
  header_.joints = head.joints;
  header_.link.assign(block.data() + sizeof head, head.link_length);
  first_record_ = position_ = block.size();
}

std::size_t RecordingReader::Take(char* bytes, std::size_t size) {
  errno = 0;
  const std::size_t count = std::fread(bytes, 1, size, file_.get());
  if (count < size && std::ferror(file_.get()) != 0) throw RecordingError(path_ + ": " + Reason());
  return count;
}

bool RecordingReader::Next(Record& record) {
  block_.resize(sizeof(RecordHead));
  const std::size_t got = Take(block_.data(), block_.size());
  block_.resize(got);
  if (got == 0) return false;
  if (block_[0] != kRecordMark) return EndOfRecords(block_);
  if (got < sizeof(RecordHead)) {
    lost_tail_ = got;
    return false;
  }
  RecordHead head{};
  std::memcpy(&head, block_.data(), sizeof head);
  if (head.event > static_cast<std::uint8_t>(Event::kClosed)) Damaged("there is no such event");
  if (head.length > kMaxRecordBytes) Damaged("it is longer than any record");
  const std::size_t rest = head.length + std::size_t{kCrcSize};
  block_.resize(sizeof head + rest);
  const std::size_t more = Take(block_.data() + sizeof head, rest);
  if (more < rest) {
    lost_tail_ = got + more;
    return false;
  }
  if (!CrcIsRight(block_)) Damaged("its checksum is wrong");
  record.event = static_cast<Event>(head.event);
  record.monotonic_ns = head.monotonic_ns;
  record.wall_ns = head.wall_ns;
  record.bytes.assign(block_.begin() + sizeof head, block_.end() - kCrcSize);
  position_ += block_.size();
  ++records_;
  return true;
}

/// After a power failure a file system may fill the file's last block with zeros.
bool RecordingReader::EndOfRecords(const std::vector<char>& rest) {
  const auto is_zero = [](char c) { return c == 0; };
  if (!std::all_of(rest.begin(), rest.end(), is_zero)) Damaged("no record begins there");
  lost_tail_ = rest.size();
  std::array<char, 4096> more;
  while (const std::size_t count = Take(more.data(), more.size())) {
    if (!std::all_of(more.begin(), more.begin() + count, is_zero)) Damaged("no record begins there");
    lost_tail_ += count;
  }
  return false;
}

void RecordingReader::Rewind() {
  if (std::fseek(file_.get(), static_cast<long>(first_record_), SEEK_SET) != 0) {
    throw RecordingError(path_ + ": " + Reason());
  }
  position_ = first_record_;
  records_ = 0;
  lost_tail_ = 0;
}

void RecordingReader::Damaged(const std::string& what) const {
  throw RecordingError(path_ + ": damaged at byte " + std::to_string(position_) + ", after " +
                       wire::Counted(records_, "good record") + ": " + what);
}

}  // namespace velta::recording
