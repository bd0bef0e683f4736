// SPDX-License-Identifier: MIT
#ifndef VELTA_TESTS_SUPPORT_VELTA_PROGRAM_H_
#define VELTA_TESTS_SUPPORT_VELTA_PROGRAM_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "support/bytes.h"
#include "support/peer.h"
#include "support/process.h"

namespace velta::test {

inline std::vector<char> Joined(const std::vector<std::vector<char>>& parts) {
  std::vector<char> all;
  for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}
inline std::vector<char> Part(const std::vector<char>& bytes, std::size_t from, std::size_t to) {
  return {bytes.begin() + static_cast<std::ptrdiff_t>(from), bytes.begin() + static_cast<std::ptrdiff_t>(to)};
}

/// Our program's command line with these arguments, one space between them, and a run of it.
inline std::vector<std::string> Argv(const std::string& arguments) {
  std::vector<std::string> argv = Split(arguments, ' ');
  argv.insert(argv.begin(), VELTA_PROGRAM);
  return argv;
}
inline RunResult Velta(const std::string& arguments, const std::string& input = "") {
  return RunProgram(Argv(arguments), input);
}

/// `velta sim` on one endpoint of its own choice.
class SimulatedArm : public Process {
 public:
  explicit SimulatedArm(const std::string& endpoint = "tcp://127.0.0.1:0", const std::string& options = "-n 3")
      : Process(Argv("sim " + endpoint + " " + options)), link(ReadAfter("listening on ").value_or("")) {}

  const std::string link;  ///< empty when it did not start
};

/// Bad usage and failures: a status, one line on standard error that says why, and nothing else.
inline void ExpectComplaint(const RunResult& run, int status, const std::string& complaint, const std::string& name) {
  EXPECT_EQ(run.status, status) << name << ": " << run.err;
  EXPECT_EQ(run.out, "") << name;
  EXPECT_TRUE(Begins(run.err, "velta: ") && Has(run.err, complaint)) << name << ": " << run.err;
  EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << name << ": " << run.err;
}

/// A test with a folder of its own.
class InFolder : public testing::Test {
 protected:
  InFolder() : folder(testing::TempDir() + "velta_" + std::to_string(getpid())) {
    std::filesystem::create_directory(folder);
  }
  ~InFolder() override { std::filesystem::remove_all(folder); }

  std::string Path(const std::string& name) const { return folder + "/" + name; }
  /// @return the file's path
  template <typename Bytes>
  std::string Put(const std::string& name, const Bytes& content) const {
    std::filesystem::create_directories(std::filesystem::path(Path(name)).parent_path());
    std::ofstream(Path(name), std::ios::binary).write(content.data(), static_cast<std::streamsize>(content.size()));
    return Path(name);
  }
  std::string Content(const std::string& name) const {
    std::ifstream file(Path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }

  const std::string folder;
};

/// A recording put together by hand, and the events in it.
class Tape : public std::vector<char> {
 public:
  enum { kCommand, kStatus, kOpened, kClosed };

  explicit Tape(int joints) {
    Bytes header;
    header.U8(0x89).U8('V').U8('R').U8('E').U8('C').U8('\r').U8('\n').U8(0x1A).U16(1);
    Append(header.U16(static_cast<unsigned>(joints)).U16(0).Crc());
  }
  Tape& Record(unsigned event, double ms, const std::vector<char>& bytes = {}) {
    const auto ns = static_cast<std::uint64_t>(ms * 1e6);
    Bytes record;
    record.U8('R').U8(event).U16(static_cast<unsigned>(bytes.size())).U64(5'000'000'000 + ns).U64(1'000'000'000 + ns);
    return Append(record.Add(bytes).Crc());
  }

 private:
  Tape& Append(const std::vector<char>& bytes) {
    insert(end(), bytes.begin(), bytes.end());
    return *this;
  }
};

/// A command frame of which every joint's record is this order and these values for the joints named, else zeros.
inline std::vector<char> Command(int joints, std::uint64_t stamp, unsigned order = 0,
                                 const std::vector<float>& values = {}, unsigned arm_order = 0,
                                 const std::vector<int>& named = {0}) {
  Bytes frame;
  frame.U8(0xAB).U8(0xCD).U64(stamp).U8(arm_order);
  for (int i = 0; i < joints; ++i) {
    const bool is_named = std::count(named.begin(), named.end(), i) != 0;
    frame.U8(static_cast<unsigned>(i)).U8(is_named ? order : 0);
    for (std::size_t k = 0; k < 4; ++k) frame.F32(is_named && k < values.size() ? values[k] : 0);
  }
  return frame.Crc();
}

/// What differs from joint to joint in the status frames of the tools' tests.
struct StatusJoint {
  unsigned char system_mode = 2;
  unsigned char trj_status = 0;
  std::uint32_t ew_status = 0;
  float position = 0;
};

inline std::vector<char> Status(std::uint64_t stamp, const std::vector<StatusJoint>& joints) {
  Bytes frame;
  frame.U8(0xAB).U8(0xCD).U64(stamp).U64(0).F32(0);
  for (const StatusJoint& joint : joints) {
    frame.U16(0).U8(joint.system_mode).U8(0).U32(joint.ew_status).U8(joint.trj_status).U16(0);
    frame.Fill(24, 0).F32(joint.position).Fill(40, 0);
  }
  return frame.Crc();
}

}  // namespace velta::test

#endif  // VELTA_TESTS_SUPPORT_VELTA_PROGRAM_H_
