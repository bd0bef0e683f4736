// SPDX-License-Identifier: MIT
#include "MasterControllerClient.h"

#include <algorithm>
#include <iostream>
#include <utility>

#include "SerialClient.h"
#include "TcpClient.h"
#include "UdpClient.h"
#include "command_frame.h"
#include "json_bridge.h"
#include "send_packet_merger.h"
#include "text.h"
#include "version.h"

using velta::detail::LogLine;

namespace {
constexpr int kWaitSteps = 100;  // send steps that a confirmation may take
constexpr int kMaxTimeouts = 5;  // the last of them gives up
constexpr const char* kLostConnection = "[VELTA] lost connection";
}  // namespace

MasterControllerClient::MasterControllerClient(int joint_num)
    : joint_num_(joint_num), cur_send_packet_(joint_num), last_recv_packet_(joint_num) {
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
    std::cout << "[VELTA] Try: " + std::to_string(i) + "..." << std::flush;
    if (client_ != nullptr) client_->Disconnect();
    const bool connected = client_ != nullptr && client_->Connect();
    LogLine(connected ? "succeeded!" : "failed.");
    if (connected) return true;
  }
  return false;
}

std::string MasterControllerClient::GetVersion() {
  return VELTA_VERSION::major + "." + VELTA_VERSION::minor + "." + VELTA_VERSION::revision;
}

int MasterControllerClient::ReceiveStatus() {
  read_bytes_.clear();
  const int count = client_ != nullptr ? client_->Read(read_bytes_) : -1;
  if (count < 1) {
    if (count == -1) {
      is_connected_ = false;
      LogLine(kLostConnection);
    }
    return 0;
  }
  std::vector<RecvPacket> packets = std::move(spare_packets_);
  const std::size_t found = packet_parser_->Cut(read_bytes_, packets);
  for (std::size_t i = 0; i < found; ++i) {
    // The size is read without the mutex, deliberately: only this thread appends.
    if (GetRecvBufferSize() < static_cast<std::size_t>(max_recv_buffer_size_)) PushRecvBuffer(packets[i]);
    last_recv_host_timestamp_ = packets[i].header.hostTimestamp;
    last_recv_packet_ = std::move(packets[i]);  // an exchange: the older packet becomes a spare
  }
  spare_packets_ = std::move(packets);
  return static_cast<int>(found);
}

void MasterControllerClient::PushRecvBuffer(RecvPacket packet) {
  const std::lock_guard<std::mutex> lock(*mutex_);
  recv_buffer_.push_back(std::move(packet));
}

void MasterControllerClient::FlushRecvBuffer() {
  const std::lock_guard<std::mutex> lock(*mutex_);
  recv_buffer_.clear();
}

// Taking and emptying are two steps, deliberately: a packet that arrives between them is discarded.
std::vector<RecvPacket> MasterControllerClient::GetCurStatePacket() {
  std::vector<RecvPacket> packets;
  {
    const std::lock_guard<std::mutex> lock(*mutex_);
    if (!recv_buffer_.empty()) {
      std::vector<RecvPacket> next;
      next.reserve(recv_buffer_.size());  // as many packets can be expected again
      packets.swap(recv_buffer_);
      recv_buffer_.swap(next);
    }
  }
  FlushRecvBuffer();
  return packets;
}

std::vector<std::string> MasterControllerClient::GetCurStateJson() {
  return velta::detail::StatesToJson(GetCurStatePacket(), joint_num_);
}

RecvPacket MasterControllerClient::GetLastRecvPacket() const { return last_recv_packet_; }

// No mutex, deliberately, here and in GetSendBufferSize: a subclass may hold it.
std::size_t MasterControllerClient::GetRecvBufferSize() const { return recv_buffer_.size(); }

std::size_t MasterControllerClient::GetSendBufferSize() const { return send_queue_.size(); }

void MasterControllerClient::PushSendQueue(SendPacket& packet, bool confirm_received) {
  const std::lock_guard<std::mutex> lock(*mutex_);
  packet.SetConfirmReceived(confirm_received);
  send_queue_.push_back(packet);
}

void MasterControllerClient::Enqueue(SendPacket&& packet) {
  const std::lock_guard<std::mutex> lock(*mutex_);
  send_queue_.push_back(std::move(packet));
}

void MasterControllerClient::PushFrontSendQueue(SendPacket& packet, bool confirm_received) {
  const std::lock_guard<std::mutex> lock(*mutex_);
  packet.SetConfirmReceived(confirm_received);
  send_queue_.push_front(packet);
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
  PopInto(packet);
  return packet;
}

void MasterControllerClient::PopInto(SendPacket& packet) {
  const std::lock_guard<std::mutex> lock(*mutex_);
  if (send_queue_.empty()) {  // another thread flushed it: nothing is commanded
    packet = SendPacket(joint_num_);
    return;
  }
  packet = std::move(send_queue_.front());
  send_queue_.pop_front();
}

void MasterControllerClient::FlushSendBuffer() {
  const std::lock_guard<std::mutex> lock(*mutex_);
  send_queue_.clear();
}

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
      unique_send_map_.Place(packet.GetUniqueKey(), std::move(packet));
    } else {
      Enqueue(std::move(packet));
    }
  }
}

bool MasterControllerClient::SendOnce(SendPacket& packet, bool keep_timestamp) {
  if (!keep_timestamp && packet.GetTimeStamp() == last_send_timestamp_) packet.SetTimeStamp(packet.GetTimeStamp() + 1);
  last_send_timestamp_ = packet.GetTimeStamp();
  velta::detail::WriteCommandFrame(packet, write_bytes_);
  if (client_ != nullptr && client_->Write(write_bytes_) != -1) return true;
  is_connected_ = false;
  LogLine(kLostConnection);
  return false;
}

bool MasterControllerClient::TakeNextPacket() {
  // The queue's size is read without the mutex, deliberately: only this thread takes packets out.
  if (GetSendBufferSize() != 0) {
    PopInto(cur_send_packet_);
    return true;
  }
  const std::string* const key = unique_send_map_.FirstNotSentKey();
  if (key == nullptr) return false;
  cur_send_packet_ = unique_send_map_.GetSendPacket(*key);
  return true;
}

void MasterControllerClient::SendPacketInBuffer() {
  MergeIndependentSendPacketBuffer();

  if (!wait_confirm_ && !ready_to_send_) return;
  if (wait_confirm_ && last_send_timestamp_ != last_recv_host_timestamp_) {
    if (++wait_count_ <= kWaitSteps) return;
    ++timeout_count_;
    LogLine("Timeout: " + std::to_string(timeout_count_));
    if (timeout_count_ < kMaxTimeouts) {
      SendOnce(cur_send_packet_, false);
      wait_count_ = 0;
      return;
    }
    LogLine("Send timeout. Clear all send data buffer.");
    wait_confirm_ = false;
    ready_to_send_ = true;
    wait_count_ = timeout_count_ = 0;
    FlushSendBuffer();  // the plain queue alone, deliberately: the unique map and the named buffers keep theirs
    return;
  }
  if (wait_confirm_) {
    wait_confirm_ = false;
    ready_to_send_ = true;
    wait_count_ = timeout_count_ = 0;
  }

  if (!TakeNextPacket()) return;
  wait_confirm_ = cur_send_packet_.GetConfirmReceived();
  ready_to_send_ = !wait_confirm_;
  wait_count_ = timeout_count_ = 0;
  SendOnce(cur_send_packet_, false);
}
