// SPDX-License-Identifier: MIT
#include "recording_file.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "support/bytes.h"

using namespace velta::recording;
using namespace std::string_literals;

namespace {

// Written down by hand: magic, version, n, T, the link, CRC; and R, event, length, two clocks, the bytes, CRC. The two
// checksums are those of an independent calculation.
const std::string kHeader = "\x89VREC\r\n\x1a\1\0\1\0\17\0tcp://1.2.3.4:5\x4b\x7d"s;
const std::string kRecord = "R\1\3\0\b\7\6\5\4\3\2\1\x18\x17\x16\x15\x14\x13\x12\x11\xab\xcd\0\x9f\x8b"s;
const char kFrame[] = {'\xab', '\xcd', 0};
constexpr std::uint64_t kMonotonic = 0x0102030405060708, kWall = 0x1112131415161718;

class Recording : public testing::Test {
 protected:
  ~Recording() override { std::filesystem::remove_all(folder); }

  std::string Saved() const {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  /// What is wrong with a file of this content, without its name; empty for nothing.
  std::string Complaint(const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
    try {
      RecordingReader reader(path);
      for (Record record; reader.Next(record);) continue;
    } catch (const RecordingError& error) {
      const std::string text = error.what();
      EXPECT_EQ(text.find(path + ": "), 0U) << text;
      return text.substr(path.size() + 2);
    }
    return "";
  }

  std::string folder = testing::TempDir() + "recordingXXXXXX";
  const std::string path = std::string(mkdtemp(folder.data())) + "/run.vrec";
};

TEST_F(Recording, IsTheDocumentedBytesAndReadFieldByField) {
  const std::pair<Event, char> codes[] = {
      {Event::kToController, 0}, {Event::kToHost, 1}, {Event::kOpened, 2}, {Event::kClosed, 3}};
  for (const auto& [event, code] : codes) EXPECT_EQ(RecordBytes(event, 1, 0, nullptr, 0)[1], code);
  {
    RecordingWriter writer(path, {1, "tcp://1.2.3.4:5"}, false);
    writer.Write(Event::kToHost, kMonotonic, kWall, kFrame, 3);
    writer.Sync();
    EXPECT_EQ(writer.Size(), kHeader.size() + kRecord.size());
  }
  EXPECT_EQ(Saved(), kHeader + kRecord);

  RecordingReader reader(path);
  EXPECT_EQ(reader.Header().joints, 1);
  EXPECT_EQ(reader.Header().link, "tcp://1.2.3.4:5");
  Record record;
  ASSERT_TRUE(reader.Next(record));
  EXPECT_EQ(record.event, Event::kToHost);
  EXPECT_EQ(record.monotonic_ns, kMonotonic);
  EXPECT_EQ(record.wall_ns, kWall);
  EXPECT_EQ(record.bytes, std::string_view(kFrame, 3));
}

TEST_F(Recording, TellsWhatIsWrong) {
  const auto text = [](const std::vector<char>& bytes) { return std::string(bytes.begin(), bytes.end()); };
  const auto header = [&](unsigned version, unsigned joints) {
    velta::test::Bytes head;
    return text(head.Add({kHeader.begin(), kHeader.begin() + 8}).U16(version).U16(joints).U16(0).Crc());
  };
  const auto record = [&](unsigned event, unsigned length) {
    velta::test::Bytes bytes;
    return text(bytes.U8('R').U8(event).U16(length).U64(1).U64(2).Fill(length, 'x').Crc());
  };
  const std::string good = kHeader + kRecord;
  const std::pair<const char*, std::string> cases[] = {
      {"", header(1, 828) + record(3, 65507)},
      {"", good + std::string(5000, '\0')},  // what a file system may leave after a cut
      {"the recording ends within its header", kHeader.substr(0, 8)},
      {"not a recording of velta record", std::string(100, 'x')},
      {"a recording of version 2, this program reads 1", header(2, 6)},
      {"the recording's header is damaged", header(1, 0)},
      {"the recording's header is damaged", header(1, 829)},
      {"the recording's header is damaged", kHeader.substr(0, kHeader.size() - 1) + "x"},
      {"damaged at byte 16, after 0 good records: there is no such event", header(1, 6) + record(4, 0)},
      {"damaged at byte 16, after 0 good records: it is longer than any record", header(1, 6) + record(0, 65508)},
      {"damaged at byte 56, after 1 good record: its checksum is wrong", good + kRecord.substr(0, 24) + "x"},
      {"damaged at byte 56, after 1 good record: no record begins there", good + std::string(6000, '\0') + "x"}};
  for (const auto& [complaint, content] : cases) EXPECT_EQ(Complaint(content), complaint);
}

// A full disk takes part of a record: the file must end with the last whole one, and go on when there is room again.
TEST_F(Recording, FullDiskLeavesWholeRecords) {
  RecordingWriter writer(path, {1, "tcp://1.2.3.4:5"}, false);
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit small{kHeader.size() + kRecord.size() + 10, before.rlim_max};
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &small);
  writer.Write(Event::kToHost, kMonotonic, kWall, kFrame, 3);
  EXPECT_THROW(writer.Write(Event::kToHost, kMonotonic, kWall, kFrame, 3), RecordingError);
  setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, handler);
  EXPECT_EQ(Saved(), kHeader + kRecord);
  writer.Write(Event::kToHost, kMonotonic, kWall, kFrame, 3);
  EXPECT_EQ(Saved(), kHeader + kRecord + kRecord);
}

}  // namespace
