// SPDX-License-Identifier: MIT
#include "session_recorder.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <system_error>
#include <utility>
#include <vector>

#include "protocol.h"

namespace velta::detail {

namespace {

constexpr std::size_t kSlice = 32768;  // copied at once while the loop may have to wait

std::size_t Capacity(int joints, Nanos length, double rate, std::size_t head) {
  const auto frames = static_cast<std::size_t>(StatusFrameSizes(joints).packet + CommandFrameSizes(joints).packet);
  const double bytes = static_cast<double>(length) / 1e9 * rate * static_cast<double>(frames + 2 * head);
  return std::max<std::size_t>(static_cast<std::size_t>(bytes), 4 * recording::kMaxRecordBytes);
}

}  // namespace

FlightRecorder::FlightRecorder(int joints, std::string link, Nanos length, double rate)
    : joints_(joints),
      link_(std::move(link)),
      length_(length),
      capacity_(Capacity(joints, length, rate, sizeof(Head))),
      ring_(new char[capacity_]) {}

void FlightRecorder::CopyIn(std::uint64_t at, const void* bytes, std::size_t size) {
  const std::size_t place = at % capacity_;
  const std::size_t first = std::min(size, capacity_ - place);
  if (first != 0) std::memcpy(ring_.get() + place, bytes, first);
  if (size > first) std::memcpy(ring_.get(), static_cast<const char*>(bytes) + first, size - first);
}

void FlightRecorder::CopyOut(std::uint64_t at, void* bytes, std::size_t size) const {
  const std::size_t place = at % capacity_;
  const std::size_t first = std::min(size, capacity_ - place);
  if (first != 0) std::memcpy(bytes, ring_.get() + place, first);
  if (size > first) std::memcpy(static_cast<char*>(bytes) + first, ring_.get(), size - first);
}

void FlightRecorder::Add(Event event, const char* bytes, std::size_t size) {
  const Nanos steady = SteadyNow();
  const std::uint64_t wall = GetNowTimeStamp();
  const std::lock_guard<InheritingMutex> lock(mutex_);
  do {
    const Head head{steady, wall, static_cast<std::uint32_t>(std::min(size, recording::kMaxRecordBytes)), event};
    while (end_ + sizeof head + head.size - begin_ > capacity_) {
      Head oldest;
      CopyOut(begin_, &oldest, sizeof oldest);
      begin_ += sizeof oldest + oldest.size;
    }
    CopyIn(end_, &head, sizeof head);
    CopyIn(end_ + sizeof head, bytes, head.size);
    end_ += sizeof head + head.size;
    bytes += head.size;
    size -= head.size;
  } while (size != 0);
}

bool FlightRecorder::Write(const std::string& path, std::string& why) {
  std::FILE* const file = std::fopen(path.c_str(), "wbe");
  const auto fail = [&] {
    why = path + ": " + std::generic_category().message(errno);
    if (file != nullptr) std::fclose(file);
    return false;
  };
  if (file == nullptr) return fail();
  const std::vector<char> header = recording::HeaderBytes(joints_, link_);
  if (std::fwrite(header.data(), 1, header.size(), file) != header.size()) return fail();

  const Nanos oldest = SteadyNow() - length_;
  std::uint64_t at = 0;
  std::vector<char> slice;
  while (true) {
    {
      const std::lock_guard<InheritingMutex> lock(mutex_);
      at = std::max(at, begin_);  // the loop may have overtaken
      if (at == end_) break;
      std::size_t size = 0;
      while (at + size != end_ && size < kSlice) {
        Head head;
        CopyOut(at + size, &head, sizeof head);
        size += sizeof head + head.size;
      }
      slice.resize(size);
      CopyOut(at, slice.data(), size);
      at += size;
    }
    for (std::size_t i = 0; i < slice.size();) {
      Head head;
      std::memcpy(&head, slice.data() + i, sizeof head);
      i += sizeof head;
      if (head.steady_ns >= oldest) {
        const std::vector<char> record = recording::RecordBytes(head.event, static_cast<std::uint64_t>(head.steady_ns),
                                                                head.wall_ns, slice.data() + i, head.size);
        if (std::fwrite(record.data(), 1, record.size(), file) != record.size()) return fail();
      }
      i += head.size;
    }
  }
  if (std::fflush(file) != 0) return fail();
  std::fclose(file);
  return true;
}

}  // namespace velta::detail
