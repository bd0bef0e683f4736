// SPDX-License-Identifier: MIT
#include "recording.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "support/bytes.h"

using velta::tools::HeaderBytes;
using velta::tools::LinkEvent;
using velta::tools::Passage;
using velta::tools::Record;
using velta::tools::RecordBytes;
using velta::tools::RecordingError;
using velta::tools::RecordingReader;
using velta::tools::RecordingWriter;

namespace {

using Bytes = std::vector<char>;

// Written down by hand; the two checksums are those of an independent calculation.
const Bytes kHeader{'\x89', 'V',   'R', 'E', 'C', '\r', '\n', '\x1a',  // magic
                    1,      0,     1,   0,   15,  0,                   // version, n, T
                    't',    'c',   'p', ':', '/', '/',  '1',  '.',    '2', '.', '3', '.', '4', ':', '5',  // the link
                    '\x4b', '\x7d'};                                                                      // CRC
const Bytes kRecord{'R',  1,    3,    0,    8,    7,    6,    5,      4,      3, 2,      1,     0x18,
                    0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11, '\xab', '\xcd', 0, '\x9f', '\x8b'};

Bytes Joined(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

Bytes BareRecord(LinkEvent event, std::uint64_t monotonic_ns, const Bytes& bytes) {
  return RecordBytes({event, bytes.data(), bytes.size(), monotonic_ns, 0});
}

class Recording : public testing::Test {
 protected:
  Recording() : path_(testing::TempDir() + "velta_recording_" + std::to_string(getpid()) + ".vrec") {}
  ~Recording() override { unlink(path_.c_str()); }

  void Put(const Bytes& bytes) {
    std::ofstream(path_, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  Bytes Content() const {
    std::ifstream file(path_, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  /// What is wrong with the file, without its name; empty for nothing.
  std::string Complaint(const Bytes& content) {
    Put(content);
    try {
      RecordingReader reader(path_);
      Record record;
      while (reader.Next(record)) continue;
    } catch (const RecordingError& error) {
      const std::string text = error.what();
      EXPECT_EQ(text.find(path_ + ": "), 0u) << text;
      EXPECT_EQ(text.find('\n'), std::string::npos) << text;
      return text.substr(path_.size() + 2);
    }
    return "";
  }

  std::string path_;
};

TEST_F(Recording, IsTheDocumentedBytes) {
  EXPECT_EQ(HeaderBytes({1, "tcp://1.2.3.4:5"}), kHeader);
  const char frame[] = {'\xab', '\xcd', 0};
  const Passage passage{LinkEvent::kToHost, frame, 3, 0x0102030405060708, 0x1112131415161718};
  EXPECT_EQ(RecordBytes(passage), kRecord);
  const std::pair<LinkEvent, char> codes[] = {
      {LinkEvent::kToController, 0}, {LinkEvent::kToHost, 1}, {LinkEvent::kOpened, 2}, {LinkEvent::kClosed, 3}};
  for (const auto& [event, code] : codes) EXPECT_EQ(BareRecord(event, 1, {})[1], code);
  {
    RecordingWriter writer(path_, {1, "tcp://1.2.3.4:5"}, false);
    writer.Write(passage);
    writer.Sync();
    EXPECT_EQ(writer.Size(), kHeader.size() + kRecord.size());
  }
  EXPECT_EQ(Content(), Joined({kHeader, kRecord}));
}

TEST_F(Recording, IsReadFieldByField) {
  Put(Joined({kHeader, kRecord}));
  RecordingReader reader(path_);
  EXPECT_EQ(reader.Header().joints, 1);
  EXPECT_EQ(reader.Header().link, "tcp://1.2.3.4:5");
  for (int pass = 0; pass < 2; ++pass) {
    Record record;
    ASSERT_TRUE(reader.Next(record));
    EXPECT_EQ(record.event, LinkEvent::kToHost);
    EXPECT_EQ(record.monotonic_ns, 0x0102030405060708u);
    EXPECT_EQ(record.wall_ns, 0x1112131415161718u);
    EXPECT_EQ(record.bytes, (Bytes{'\xab', '\xcd', 0}));
    EXPECT_FALSE(reader.Next(record));
    EXPECT_EQ(reader.LostTail(), 0u);
    reader.Rewind();
  }
}

TEST_F(Recording, CutAnywhereKeepsTheWholeRecords) {
  const std::vector<Bytes> blocks{kHeader, BareRecord(LinkEvent::kOpened, 1, {}),
                                  BareRecord(LinkEvent::kToController, 2, Bytes(31, 'R')), kRecord,
                                  BareRecord(LinkEvent::kToHost, 4, {})};
  Bytes whole;
  std::vector<std::size_t> ends;  // of the header and of every record
  for (const Bytes& block : blocks) {
    whole.insert(whole.end(), block.begin(), block.end());
    ends.push_back(whole.size());
  }
  for (std::size_t size = 0; size <= whole.size(); ++size) {
    const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
    if (size < kHeader.size()) {
      EXPECT_EQ(Complaint(cut), size < 8 ? "not a recording of velta record" : "the recording ends within its header");
      continue;
    }
    const auto complete = static_cast<std::size_t>(std::upper_bound(ends.begin(), ends.end(), size) - ends.begin() - 1);
    for (const std::size_t zeros :
         {std::size_t{0}, std::size_t{1}, std::size_t{5000}}) {  // what a file system may leave behind the cut
      if (zeros != 0 && size != ends[complete]) continue;
      Put(Joined({cut, Bytes(zeros, 0)}));
      RecordingReader reader(path_);
      Record record;
      std::size_t records = 0;
      while (reader.Next(record)) ++records;
      EXPECT_EQ(records, complete) << size;
      EXPECT_EQ(reader.LostTail(), size - ends[complete] + zeros) << size;
    }
  }
}

TEST_F(Recording, OneChangedByteIsFound) {
  const Bytes good = Joined({kHeader, kRecord, BareRecord(LinkEvent::kToHost, 4, Bytes(300, 'x'))});
  ASSERT_EQ(Complaint(good), "");
  for (std::size_t at = 0; at < kHeader.size() + kRecord.size(); ++at) {
    for (const int change : {0x01, 0x80, 0xFF}) {
      Bytes bad = good;
      bad[at] = static_cast<char>(bad[at] ^ change);
      // A length that reaches behind the end of the file looks like a record cut short.
      if (at == kHeader.size() + 3) continue;
      EXPECT_NE(Complaint(bad), "") << at << " ^ " << change;
    }
  }
}

TEST_F(Recording, TellsWhatIsWrong) {
  using velta::test::Bytes;
  const auto header = [](unsigned version, unsigned joints) -> std::vector<char> {
    Bytes head;
    head.Add({kHeader.begin(), kHeader.begin() + 8}).U16(version).U16(joints).U16(0);
    return head.Crc();
  };
  const auto record = [](unsigned event, unsigned length) -> std::vector<char> {
    Bytes bytes;
    bytes.U8('R').U8(event).U16(length).U64(1).U64(2).Fill(length, 'x');
    return bytes.Crc();
  };
  std::vector<char> bad_crc = kRecord;
  bad_crc.back() = 0;
  const struct {
    const char* complaint;
    std::vector<char> content;
  } cases[] = {
      {"not a recording of velta record", {}},
      {"not a recording of velta record", std::vector<char>(100, 'x')},
      {"a recording of version 2, this program reads 1", header(2, 6)},
      {"the recording's header is damaged", header(1, 0)},
      {"the recording's header is damaged", header(1, 829)},
      {"damaged at byte 16, behind 0 good records: there is no such event", Joined({header(1, 6), record(4, 0)})},
      {"damaged at byte 16, behind 0 good records: it is longer than any record",
       Joined({header(1, 6), record(0, 65508)})},
      {"damaged at byte 56, behind 1 good record: its checksum is wrong", Joined({kHeader, kRecord, bad_crc})},
      {"damaged at byte 56, behind 1 good record: no record begins there", Joined({kHeader, kRecord, {'x'}})},
      {"damaged at byte 56, behind 1 good record: no record begins there",
       Joined({kHeader, kRecord, std::vector<char>(6000, 0), {'x'}})},
  };
  for (const auto& c : cases) EXPECT_EQ(Complaint(c.content), c.complaint);
  EXPECT_EQ(Complaint(Joined({header(1, 828), record(3, 65507)})), "");
}

TEST_F(Recording, LeavesAFileOfThatNameAlone) {
  Put({'x'});
  EXPECT_THROW(RecordingWriter(path_, {6, ""}, false), velta::tools::Failure);
  EXPECT_EQ(Content(), Bytes{'x'});
  const RecordingWriter replacing(path_, {6, ""}, true);
  EXPECT_EQ(Content(), HeaderBytes({6, ""}));
}

// A full disk takes part of a record: the file must end with the last whole one, and go on when there is room again.
TEST_F(Recording, FullDiskLeavesWholeRecords) {
  RecordingWriter writer(path_, {1, "tcp://1.2.3.4:5"}, false);
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit small{kHeader.size() + kRecord.size() + 10, before.rlim_max};
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &small);
  const char frame[] = {'\xab', '\xcd', 0};
  const Passage passage{LinkEvent::kToHost, frame, 3, 0x0102030405060708, 0x1112131415161718};
  writer.Write(passage);
  EXPECT_THROW(writer.Write(passage), velta::tools::Failure);
  setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, handler);
  EXPECT_EQ(Content(), Joined({kHeader, kRecord}));
  writer.Write(passage);
  EXPECT_EQ(Content(), Joined({kHeader, kRecord, kRecord}));
}

}  // namespace
