// SPDX-License-Identifier: MIT
// Any bytes come in while any commands go out. Every command carries a number in its values, and the wire is read back:
// each number leaves once (a re-send repeats the frame before it), and is missing only if something told to drop it.
#include <array>
#include <cstring>
#include <iostream>
#include <map>
#include <set>

#include "support/bytes.h"
#include "support/scripted_link.h"
#include "target.h"

namespace velta::fuzz {
namespace {

constexpr int kStepsToGiveUp = 5 * 101;

struct Client : test::ScriptedClient {
  explicit Client(int n) : ScriptedClient(n) { max_recv_buffer_size_ = 8; }
  bool Idle() const { return send_queue_.empty() && unique_send_map_.GetNotSentKeys().empty(); }
};

class Session {
 public:
  explicit Session(Input& in) : in_(in), n_(1 + static_cast<int>(in.Below(4))), client_(n_) {
    static const auto* const quiet = std::cout.rdbuf(nullptr);
    static_cast<void>(quiet);
    client_.CreateIndependentSendPacketBuffer("a");
    client_.CreateIndependentSendPacketBuffer("b");
  }

  void Run() {
    while (!in_.Empty()) Act();
    client_.link->write_result = 1;
    client_.link->reads.clear();
    if (last_flag_) ConfirmationEnds();
    Drain();
    for (unsigned number = 1; number < next_; ++number) {
      Check(sent_.count(number) != 0 || may_drop_.count(number) != 0, "no command is lost");
    }
  }

 private:
  void Act() {
    SendPacket packet = Command();
    switch (in_.Below(16)) {
      case 0:
        return Receive(in_.Take(in_.Byte()));
      case 1: {
        client_.link->read_result = -1;
        Receive({});
        client_.link->read_result = 0;
        return Check(!client_.IsConnected(), "a broken link is told");
      }
      case 2:
        return Receive(test::StatusFrame(n_, next_, stamp_, in_.Byte()));
      case 3:
        return Receive(test::StatusFrame(n_, next_, stamp_ - in_.Byte()));
      case 4:
        client_.PushFrontSendQueue(packet, in_.Flag());
        return Queued();
      case 5:
        Check(client_.PushSendQueueJson(Document(packet), in_.Flag()), "a whole document is taken");
        return Queued();
      case 6:
        Check(!client_.PushSendQueueJson("{" + std::string(1, static_cast<char>(in_.Byte())), true), "a torn one not");
        return;
      case 7:
      case 8:
        packet.SetUniqueKey(in_.Flag() ? "x" : "y");
        client_.InsertUniqueSendMap(packet);
        return File(packet.GetUniqueKey(), {next_++});
      case 9:
      case 10: {
        const bool is_unique = in_.Flag();
        const std::string key = in_.Flag() ? "x" : "y", name = in_.Flag() ? "a" : "b";
        client_.PushBackIndependentSendBuffer(packet, name, in_.Below(4) == 0, is_unique, key);
        if (!is_unique) return Queued();
        unsigned& waiting = buffered_[key][name == "b"];
        may_drop_.insert(std::exchange(waiting, next_++));
        return;
      }
      case 11:
        may_drop_.insert(plain_.begin(), plain_.end());
        return client_.FlushSendBuffer();
      case 12:
        Check(client_.GetCurStateJson().size() <= 8 && client_.GetRecvBufferSize() == 0, "collecting empties");
        return;
      case 13:
        client_.link->write_result = static_cast<int>(in_.Below(4)) - 1;
        return;
      case 14:
        for (unsigned i = in_.Byte(); i > 0; --i) Step();
        return;
      case 15:
        last_flag_ = in_.Flag();
        return Step();
      default:
        client_.PushSendQueue(packet, in_.Flag());
        return Queued();
    }
  }

  /// A command of one joint or more, with the next number.
  SendPacket Command() {
    SendPacket packet(n_);
    const unsigned joints = in_.Byte() | 1U << next_ % static_cast<unsigned>(n_);
    for (int i = 0; i < n_; ++i) {
      if ((joints >> i & 1) == 0) continue;
      packet.SetJointOrder(i, ePacketOrder::RefPosition);
      for (int v = 1; v <= 4; ++v) packet.SetValue(i, v, static_cast<float>(next_));
    }
    return packet;
  }
  std::string Document(const SendPacket& packet) const {
    std::string text = R"({"armOrder":"0","jointCommand":[)";
    for (int i = 0; i < n_; ++i) {
      if (packet.joints[static_cast<std::size_t>(i)].order == 0) continue;
      text += (text.back() == '[' ? "" : ",") + std::string(R"({"jointOrder":"17","jointName":")") +
              std::to_string(i + 1) + '"';
      for (const char* name : {"value1", "value2", "value3", "value4"}) {
        text += std::string(",\"") + name + "\":\"" + std::to_string(next_) + '"';
      }
      text += '}';
    }
    return text + "]}";
  }

  void Queued() { plain_.insert(next_++); }

  /// What is filed under a key takes the place of what waits there.
  void File(const std::string& key, std::set<unsigned> numbers) {
    filed_[key].swap(numbers);
    may_drop_.insert(numbers.begin(), numbers.end());
  }
  /// Commands of one key from both buffers share a packet, or the later buffer's takes the earlier one's place.
  void FileBuffered() {
    for (const auto& [key, numbers] : buffered_) {
      File(key, {numbers[0], numbers[1]});
      if (numbers[1] != 0) may_drop_.insert(numbers[0]);
    }
    buffered_.clear();
  }

  void Receive(std::vector<char> bytes) {
    if (!bytes.empty()) client_.link->reads.push_back(std::move(bytes));
    client_.ReceiveStatus();
    Check(client_.GetRecvBufferSize() <= 8, "the receive buffer is bounded");
  }

  void Step() {
    const bool waited = client_.wait_confirm_;
    const bool confirmed = client_.last_send_timestamp_ == client_.last_recv_host_timestamp_;
    const std::size_t before = client_.link->writes.size();
    if (waited && !confirmed && client_.wait_count_ == 100 && client_.timeout_count_ == 4) {
      client_.MergeIndependentSendPacketBuffer();
      may_drop_.insert(plain_.begin(), plain_.end());  // the queue is given up, what has just been merged too
    }
    FileBuffered();
    client_.SendPacketInBuffer();
    Check(client_.wait_confirm_ != client_.ready_to_send_, "waiting or ready");
    Check(client_.link->writes.size() <= before + 1, "one frame a step");
    if (client_.link->writes.size() > before) Sent(client_.link->writes.back(), waited && !confirmed);
    client_.link->writes.clear();
  }

  void Sent(const std::vector<char>& frame, bool is_repeat) {
    const auto joints = static_cast<std::size_t>(n_);
    Check(frame.size() == 18 * joints + 13 && frame[0] == '\xAB' && frame[1] == '\xCD', "whole frames");
    const unsigned crc = test::BitwiseCrc16(frame, frame.size() - 2);
    Check(frame[frame.size() - 2] == static_cast<char>(crc & 0xFF) && frame.back() == static_cast<char>(crc >> 8),
          "a right CRC");
    const std::uint64_t stamp = test::ReadU64(frame, 2);
    Check(stamp != stamp_, "no stamp twice in a row");
    stamp_ = stamp;
    const std::vector<char> records(frame.begin() + 11, frame.end() - 2);
    if (is_repeat) return Check(records == records_, "a re-send is the same command");
    records_ = records;
    std::set<unsigned> numbers;
    for (std::size_t i = 0; i < joints; ++i) {
      Check(static_cast<unsigned char>(records[18 * i]) == i, "joints in their places");
      if (records[18 * i + 1] == 0) continue;
      float value = 0;
      std::memcpy(&value, &records[18 * i + 2], sizeof value);
      numbers.insert(static_cast<unsigned>(value));
    }
    for (const unsigned number : numbers) Check(sent_.insert(number).second, "no command is sent twice");
  }

  void ConfirmationEnds() {
    bool ended = !client_.wait_confirm_;
    for (int i = 0; i <= kStepsToGiveUp && !ended; ++i) {  // the first step may still find an echo, and wait anew
      Step();
      ended = !client_.wait_confirm_;
    }
    Check(ended, "a wait for a confirmation ends");
  }

  void Drain() {
    for (std::size_t i = 0; i < 3 * next_ + 10; ++i) {
      client_.link->reads.clear();
      Step();
      if (client_.Idle() && !client_.wait_confirm_) return;
      client_.PushRecvBuffer(RecvPacket(n_));
      client_.last_recv_host_timestamp_ = stamp_;
    }
    Check(false, "everything leaves when every frame is echoed");
  }

  Input& in_;
  int n_;
  Client client_;
  unsigned next_ = 1;
  std::uint64_t stamp_ = 0;
  std::vector<char> records_;
  bool last_flag_ = false;
  std::set<unsigned> plain_, sent_, may_drop_;
  std::map<std::string, std::array<unsigned, 2>> buffered_;  ///< unique commands in the buffers "a" and "b", by key
  std::map<std::string, std::set<unsigned>> filed_;          ///< in the unique map
};

void Run(Input& in) { Session(in).Run(); }

const Registered kTarget("session", Run);

}  // namespace
}  // namespace velta::fuzz
