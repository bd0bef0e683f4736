// SPDX-License-Identifier: MIT
#include "MasterControllerClient.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "SerialClient.h"
#include "TcpClient.h"
#include "UdpClient.h"
#include "client_parts.h"
#include "json_bridge.h"
#include "log.h"
#include "packet_frames.h"
#include "send_packet_merger.h"
#include "version.h"

using velta::detail::LogLine;

namespace {
constexpr int kWaitSteps = 100;  // send steps that a confirmation may take
constexpr int kMaxTimeouts = 5;  // the last of them gives up
constexpr const char* kLostConnection = "[VELTA] lost connection";
}  // namespace

MasterControllerClient::MasterControllerClient(int joint_num)
    : joint_num_(joint_num),
      cur_send_packet_(joint_num),
      last_recv_packet_(joint_num),
      parts_(std::make_unique<Parts>()) {
  auto parser = std::make_unique<PacketParser>(joint_num_);
  mutex_ = new std::mutex;
  packet_parser_ = parser.release();
}

MasterControllerClient::~MasterControllerClient() {
  delete packet_parser_;
  delete client_;
  delete mutex_;
}

bool MasterControllerClient::InitAs(std::unique_ptr<AbstractClient> client) {
  client_ = client.release();  // an earlier link is not released, deliberately: it stays open and allocated
  is_init_ = client_->Init();
  if (is_init_) is_connected_ = true;
  recv_buffer_.clear();
  parts_->packets_waiting.Set(0);
  return is_init_;
}

bool MasterControllerClient::InitAsTcpClient(std::string ip, int port) {
  return InitAs(std::make_unique<TcpClient>(std::move(ip), port));
}

bool MasterControllerClient::InitAsUdpClient(std::string ip, int port) {
  return InitAs(std::make_unique<UdpClient>(std::move(ip), port));
}

bool MasterControllerClient::InitAsSerialClient(std::string device, unsigned int baud_rate) {
  return InitAs(std::make_unique<SerialClient>(std::move(device), baud_rate));
}

bool MasterControllerClient::Connect() {
  if (client_ == nullptr) return false;
  is_connected_ = client_->Connect();
  if (is_connected_) parts_->reconnections.Add(1);
  return is_connected_;
}

// is_connected_ stays, deliberately: only the receive and send steps clear it.
bool MasterControllerClient::Disconnect() const {
  if (client_ == nullptr) return false;
  client_->Disconnect();
  return true;
}

// is_connected_ stays, deliberately, also after a success. A client without a link of its own fails every attempt.
bool MasterControllerClient::ReConnect(int try_num) {
  if (!is_init_) return false;
  LogLine("[VELTA] Try to Re-Connect");
  for (int i = 0; i < try_num; ++i) {
    velta::detail::LogAttempt attempt("[VELTA] Try: " + std::to_string(i) + "...");
    if (client_ != nullptr) client_->Disconnect();
    const bool connected = client_ != nullptr && client_->Connect();
    attempt.End(connected ? "succeeded!" : "failed.");
    if (!connected) continue;
    parts_->reconnections.Add(1);
    return true;
  }
  return false;
}

std::string MasterControllerClient::GetVersion() {
  return VELTA_VERSION::major + "." + VELTA_VERSION::minor + "." + VELTA_VERSION::revision;
}

std::size_t MasterControllerClient::CutStatus(std::vector<RecvPacket>& packets) {
  std::vector<char>& bytes = parts_->read_bytes;
  if (!bytes.empty()) {  // an earlier step ran out of memory
    packet_parser_->Push(bytes);
    bytes.clear();
  }
  const int count = client_ != nullptr ? client_->Read(bytes) : -1;
  if (count < 1) {
    bytes.clear();
    if (count == -1) {
      is_connected_ = false;
      LogLine(kLostConnection);
    }
    return 0;
  }
  parts_->bytes_received.Add(bytes.size());
  const velta::detail::Received received =
      velta::detail::ReceiveFrames(*packet_parser_, bytes, parts_->joined_bytes, packets);
  parts_->frames_received.Add(received.packets);
  if (received.discarded != 0) {
    parts_->frames_bad_crc.Add(received.bad_crc);
    parts_->bytes_discarded.Add(received.discarded);
  }
  return received.packets;
}

int MasterControllerClient::ReceiveStatus() {
  std::vector<RecvPacket> packets = std::move(parts_->spare_packets);
  const std::size_t found = CutStatus(packets);
  for (std::size_t i = 0; i < found; ++i) {
    // The size is read without the mutex, deliberately: only this thread appends.
    if (GetRecvBufferSize() < static_cast<std::size_t>(max_recv_buffer_size_)) {
      PushRecvBuffer(packets[i]);
    } else {
      parts_->packets_refused.Add(1);
    }
    last_recv_host_timestamp_ = packets[i].header.hostTimestamp;
    last_recv_packet_.swap(packets[i]);  // the older packet's memory is used again
  }
  parts_->spare_packets = std::move(packets);
  return static_cast<int>(found);
}

void MasterControllerClient::PushRecvBuffer(RecvPacket packet) {
  const std::lock_guard<std::mutex> lock(*mutex_);
  recv_buffer_.push_back(std::move(packet));
  parts_->packets_waiting.Set(recv_buffer_.size());
}

void MasterControllerClient::FlushRecvBuffer() {
  const std::lock_guard<std::mutex> lock(*mutex_);
  recv_buffer_.clear();
  parts_->packets_waiting.Set(0);
}

// Taking and emptying are two steps, deliberately: a packet that arrives between them is discarded. The buffer keeps
// its storage, so that its size, which the receive step reads without the mutex, is right at any moment.
std::vector<RecvPacket> MasterControllerClient::GetCurStatePacket() {
  std::vector<RecvPacket> packets;
  {
    const std::lock_guard<std::mutex> lock(*mutex_);
    packets.assign(std::make_move_iterator(recv_buffer_.begin()), std::make_move_iterator(recv_buffer_.end()));
  }
  FlushRecvBuffer();
  return packets;
}

std::vector<std::string> MasterControllerClient::GetCurStateJson() {
  const std::vector<RecvPacket> packets = GetCurStatePacket();
  std::vector<std::string> documents;
  documents.reserve(packets.size());
  for (const RecvPacket& packet : packets) documents.push_back(parts_->state_document.Text(packet, joint_num_));
  return documents;
}

RecvPacket MasterControllerClient::GetLastRecvPacket() const { return last_recv_packet_; }

// No mutex, deliberately, here and in GetSendBufferSize: a subclass may hold it. Other threads have GetStatistics().
std::size_t MasterControllerClient::GetRecvBufferSize() const { return recv_buffer_.size(); }

std::size_t MasterControllerClient::GetSendBufferSize() const { return send_queue_.size(); }

void MasterControllerClient::PushSendQueue(SendPacket& packet, bool confirm_received) {
  const std::lock_guard<std::mutex> lock(*mutex_);
  packet.SetConfirmReceived(confirm_received);
  send_queue_.push_back(packet);
  CountQueued();
}

void MasterControllerClient::Enqueue(SendPacket&& packet) {
  const std::lock_guard<std::mutex> lock(*mutex_);
  send_queue_.push_back(std::move(packet));
  CountQueued();
}

void MasterControllerClient::PushFrontSendQueue(SendPacket& packet, bool confirm_received) {
  const std::lock_guard<std::mutex> lock(*mutex_);
  packet.SetConfirmReceived(confirm_received);
  send_queue_.push_front(packet);
  CountQueued();
}

bool MasterControllerClient::PushSendQueueJson(const std::string& json, bool confirm_received) {
  try {
    SendPacket packet = velta::detail::CommandFromJson(json, joint_num_);
    packet.SetConfirmReceived(confirm_received);
    Enqueue(std::move(packet));
    return true;
  } catch (...) {  // whatever is wrong with the document, nothing was queued
    return false;
  }
}

SendPacket MasterControllerClient::PopSendQueue() {
  SendPacket packet(0);
  TakeFront(packet);
  return packet;
}

bool MasterControllerClient::TakeFront(SendPacket& packet) {
  const std::lock_guard<std::mutex> lock(*mutex_);
  if (send_queue_.empty()) return false;  // another thread may have flushed it
  packet.swap(send_queue_.front());
  send_queue_.pop_front();
  CountQueued();
  return true;
}

void MasterControllerClient::FlushSendBuffer() {
  const std::lock_guard<std::mutex> lock(*mutex_);
  send_queue_.clear();
  CountQueued();
}

void MasterControllerClient::CountQueued() { parts_->commands_queued.Set(send_queue_.size()); }

void MasterControllerClient::InsertUniqueSendMap(SendPacket& packet) {
  unique_send_map_.Insert(packet.GetUniqueKey(), packet);
}

void MasterControllerClient::CreateIndependentSendPacketBuffer(const std::string& buffer_name) {
  if (independent_send_buffers_.count(buffer_name) != 0) return;
  independent_send_buffers_.emplace(buffer_name, std::make_shared<SendPacketBuffer>());
}

void MasterControllerClient::PushBackIndependentSendBuffer(SendPacket& packet, const std::string& buffer_name,
                                                           bool confirm_received, bool is_unique,
                                                           const std::string& unique_key) {
  packet.SetConfirmReceived(confirm_received);
  packet.SetIsUnique(is_unique);
  packet.SetUniqueKey(unique_key);
  const auto found = independent_send_buffers_.find(buffer_name);
  if (found != independent_send_buffers_.end()) {
    found->second->pushBack(packet);
  } else {
    CreateIndependentSendPacketBuffer(buffer_name);  // the packet is dropped, deliberately: buffers are created first
  }
}

void MasterControllerClient::MergeIndependentSendPacketBuffer() {
  const auto& named = independent_send_buffers_;
  if (std::all_of(named.begin(), named.end(), [](const auto& entry) { return entry.second->empty(); })) return;
  std::vector<std::shared_ptr<SendPacketBuffer>> buffers;
  buffers.reserve(named.size());
  for (const auto& entry : named) buffers.push_back(entry.second);
  for (SendPacket& packet : SendPacketMerger::getMergedPacket(buffers, joint_num_)) {
    if (packet.IsUnique()) {
      unique_send_map_.Insert(packet.GetUniqueKey(), std::move(packet));
    } else {
      Enqueue(std::move(packet));
    }
  }
}

bool MasterControllerClient::SendOnce(SendPacket& packet, bool keep_timestamp) {
  if (!keep_timestamp && packet.GetTimeStamp() == last_send_timestamp_) packet.SetTimeStamp(packet.GetTimeStamp() + 1);
  last_send_timestamp_ = packet.GetTimeStamp();
  velta::detail::WriteCommandFrame(packet, parts_->write_bytes);
  if (client_ != nullptr && client_->Write(parts_->write_bytes) != -1) {
    parts_->frames_sent.Add(1);
    return true;
  }
  is_connected_ = false;
  LogLine(kLostConnection);
  return false;
}

bool MasterControllerClient::TakeNextPacket() {
  // The queue's size is read without the mutex, deliberately. Other threads push and flush meanwhile, so the count
  // shows what is surely there, and taking shows what is still there.
  if ((parts_->commands_queued.Get() != 0 || GetSendBufferSize() != 0) && TakeFront(cur_send_packet_)) return true;
  const std::string* const key = unique_send_map_.FirstNotSentKey();
  if (key == nullptr) return false;
  unique_send_map_.GetSendPacket(*key).swap(cur_send_packet_);
  return true;
}

void MasterControllerClient::GiveUp() {
  LogLine("Send timeout. Clear all send data buffer.");
  wait_confirm_ = false;
  ready_to_send_ = true;
  wait_count_ = timeout_count_ = 0;
  parts_->commands_given_up.Add(1);
  const std::lock_guard<std::mutex> lock(*mutex_);
  parts_->commands_dropped.Add(send_queue_.size());
  send_queue_.clear();  // the plain queue only, deliberately: the unique map and the named buffers keep theirs
  CountQueued();
}

bool MasterControllerClient::PassGate() {
  if (!wait_confirm_ && !ready_to_send_) return false;
  if (wait_confirm_ && last_send_timestamp_ != last_recv_host_timestamp_) {
    if (++wait_count_ <= kWaitSteps) return false;
    ++timeout_count_;
    LogLine("Timeout: " + std::to_string(timeout_count_));
    if (timeout_count_ < kMaxTimeouts) {
      if (SendOnce(cur_send_packet_, false)) parts_->frames_sent_again.Add(1);
      wait_count_ = 0;
      return false;
    }
    GiveUp();
    return false;
  }
  if (wait_confirm_) {
    parts_->commands_confirmed.Add(1);
    wait_confirm_ = false;
    ready_to_send_ = true;
    wait_count_ = timeout_count_ = 0;
  }
  return true;
}

bool MasterControllerClient::SendChosen() {
  wait_confirm_ = cur_send_packet_.GetConfirmReceived();
  ready_to_send_ = !wait_confirm_;
  wait_count_ = timeout_count_ = 0;
  return SendOnce(cur_send_packet_, false);
}

void MasterControllerClient::SendPacketInBuffer() {
  MergeIndependentSendPacketBuffer();
  if (PassGate() && TakeNextPacket()) SendChosen();
}

velta::Statistics MasterControllerClient::GetStatistics() const {
  velta::Statistics copy;
  copy.bytes_received = parts_->bytes_received.Get();
  copy.frames_received = parts_->frames_received.Get();
  copy.frames_bad_crc = parts_->frames_bad_crc.Get();
  copy.bytes_discarded = parts_->bytes_discarded.Get();
  copy.packets_refused = parts_->packets_refused.Get();
  copy.packets_waiting = parts_->packets_waiting.Get();
  copy.commands_queued = parts_->commands_queued.Get();
  copy.frames_sent = parts_->frames_sent.Get();
  copy.frames_sent_again = parts_->frames_sent_again.Get();
  copy.commands_confirmed = parts_->commands_confirmed.Get();
  copy.commands_given_up = parts_->commands_given_up.Get();
  copy.commands_dropped = parts_->commands_dropped.Get();
  copy.reconnections = parts_->reconnections.Get();
  return copy;
}
