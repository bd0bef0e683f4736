// SPDX-License-Identifier: MIT
// Any file is read to its end or refused by a typed error; a whole one gives its records, a cut one those before the
// cut.
#include "recording_file.h"
#include "support/bytes.h"
#include "target.h"

namespace velta::fuzz {
namespace {

struct File {
  std::vector<char> bytes;
  std::vector<std::size_t> ends;  ///< of the header and of each record
};

File Compose(Input& in) {
  using test::Bytes;
  File file;
  const std::vector<char> link = in.Take(in.Below(20));
  Bytes header;
  for (const char c : {'\x89', 'V', 'R', 'E', 'C', '\r', '\n', '\x1A'}) header.U8(static_cast<unsigned char>(c));
  header.U16(1).U16(1 + in.Below(6)).U16(static_cast<unsigned>(link.size())).Add(link).Crc();
  file.bytes = header;
  file.ends.push_back(file.bytes.size());
  while (!in.Empty() && file.bytes.size() < 20000) {
    const unsigned event = in.Below(4);
    const std::vector<char> content = in.Take(event < 2 ? in.Byte() : 0);
    Bytes record;
    record.U8('R').U8(event).U16(static_cast<unsigned>(content.size())).U64(in.Byte()).U64(in.Byte());
    record.Add(content).Crc();
    const std::vector<char>& bytes = record;
    file.bytes.insert(file.bytes.end(), bytes.begin(), bytes.end());
    file.ends.push_back(file.bytes.size());
  }
  return file;
}

/// The records' bytes, again as they stand in the file; what is left after them in lost_tail.
std::vector<char> ReadAll(recording::RecordingReader& reader, std::size_t& count, std::uint64_t& lost_tail) {
  std::vector<char> bytes;
  recording::Record record;
  for (count = 0; reader.Next(record); ++count) {
    const auto block = recording::RecordBytes(record.event, record.monotonic_ns, record.wall_ns, record.bytes.data(),
                                              record.bytes.size());
    bytes.insert(bytes.end(), block.begin(), block.end());
  }
  lost_tail = reader.LostTail();
  return bytes;
}

void Run(Input& in) {
  enum { Whole, Cut, Changed, Raw };
  const unsigned form = in.Below(4);
  const unsigned where = in.Byte() << 8 | in.Byte(), change = 1 + in.Below(255);
  File file;
  if (form == Raw) {
    file.bytes = in.Take(4096);
  } else {
    file = Compose(in);
  }
  if (form == Cut) file.bytes.resize(where % file.bytes.size());
  if (form == Changed) {
    char& byte = file.bytes[where % file.bytes.size()];
    byte = static_cast<char>(static_cast<unsigned char>(byte) ^ change);
  }

  try {
    recording::RecordingReader reader(FileOf(file.bytes));
    std::size_t count = 0, again = 0;
    std::uint64_t tail = 0;
    const std::vector<char> records = ReadAll(reader, count, tail);
    reader.Rewind();
    Check(ReadAll(reader, again, tail) == records && again == count, "reading again gives the same");
    if (form > Cut) return;
    const auto whole = static_cast<std::size_t>(
        std::count_if(file.ends.begin(), file.ends.end(), [&](std::size_t end) { return end <= file.bytes.size(); }));
    Check(whole == count + 1, "every whole record is read");
    Check(std::equal(records.begin(), records.end(), file.bytes.begin() + static_cast<std::ptrdiff_t>(file.ends[0])),
          "records are the file's");
    Check(file.ends[count] + tail == file.bytes.size(), "the rest is counted");
  } catch (const recording::RecordingError&) {
    Check(form != Whole && (form != Cut || file.bytes.size() < file.ends[0]), "a good recording is not refused");
  }
}

const Registered kTarget("recording", Run);

}  // namespace
}  // namespace velta::fuzz
