// SPDX-License-Identifier: MIT
#ifndef VELTA_MASTER_CONTROLLER_CLIENT_H_
#define VELTA_MASTER_CONTROLLER_CLIENT_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "AbstractClient.h"
#include "PacketParser.h"
#include "RecvPacket.h"
#include "SendPacket.h"
#include "send_packet_buffer.h"
#include "unique_send_packet_map.h"
#include "velta_export.h"
#include "velta_statistics.h"

/// The object through which a host drives the master controller of an arm with n joints.
///
/// It is passive: it starts no thread, and only ReceiveStatus() and SendPacketInBuffer() touch the link. The host's
/// loop queues commands, calls both steps and collects status packets.
///
/// Send step, by (wait_confirm_, ready_to_send_), after the named buffers have been merged:
///
/// | state          | event                             | next state, and what leaves |
/// |----------------|-----------------------------------|--------------------|
/// | (false, true)  | nothing queued                    | same, nothing |
/// | (false, true)  | packet without confirmation       | same, the packet |
/// | (false, true)  | packet with confirmation          | (true, false), the packet |
/// | (true, false)  | echo equals the stamp sent        | (false, true), and the next packet in the same call |
/// | (true, false)  | calls 1 to 100 without the echo   | same, nothing |
/// | (true, false)  | call 101, time-outs 1 to 4        | same, the packet again with its stamp raised by 1 |
/// | (true, false)  | call 101, time-out 5              | (false, true), nothing; the plain queue is emptied |
/// | (false, false) | never entered by this class       | same, nothing |
///
/// Units:   time stamps in nanoseconds since the Unix epoch; the confirmation wait is counted in send steps.
/// Errors:  results and "[VELTA]" lines (see velta_log.h); nothing is thrown but allocation and mutex failures.
/// Threads: by groups. Calls of one group never overlap each other, but for feeding; calls of different groups may.
///
/// | group      | thread                                    | operations                                              |
/// |------------|-------------------------------------------|---------------------------------------------------------|
/// | steps      | the one that runs the control loop        | ReceiveStatus, SendPacketInBuffer, SendOnce,            |
/// |            |                                           | MergeIndependentSendPacketBuffer, InsertUniqueSendMap,  |
/// |            |                                           | CreateIndependentSendPacketBuffer,                      |
/// |            |                                           | PushBackIndependentSendBuffer, PopSendQueue,            |
/// |            |                                           | PushRecvBuffer, GetLastRecvPacket, GetRecvBufferSize,   |
/// |            |                                           | GetSendBufferSize, IsInit, IsConnected,                 |
/// |            |                                           | IsConfirmationPending                                   |
/// | collecting | one                                       | GetCurStatePacket, GetCurStateJson, FlushRecvBuffer     |
/// | feeding    | any number, also at once                  | PushSendQueue, PushFrontSendQueue, PushSendQueueJson,   |
/// |            |                                           | FlushSendBuffer                                         |
/// | any        | any, at any time                          | GetStatistics, GetVersion                               |
/// | link       | the loop's, while no other is in the      | InitAs..., Connect, Disconnect, ReConnect, destruction  |
/// |            | client                                    |                                                         |
class VELTA_API MasterControllerClient {
 public:
  /// Touches no device and no socket.
  /// @param joint_num joints of the arm (n), the same as the controller's
  explicit MasterControllerClient(int joint_num);
  MasterControllerClient(const MasterControllerClient&) = delete;
  MasterControllerClient& operator=(const MasterControllerClient&) = delete;

  /// Frees the parser, the link (closing it) and the mutex.
  virtual ~MasterControllerClient();

  /// One receive step: reads what the link has, cuts status frames, buffers each packet (at most 4096 wait; then the
  /// newest are not buffered) and remembers the newest one. Never blocks.
  /// @return packets parsed in this call, buffered or not; 0 also for a lost link, which prints "[VELTA] lost
  /// connection" and clears IsConnected()
  virtual int ReceiveStatus();

  /// One send step: at most one packet leaves (see the table above). Never blocks on a socket.
  virtual void SendPacketInBuffer();

  /// Appends packet to the receive buffer, whatever its size. Takes the mutex.
  virtual void PushRecvBuffer(RecvPacket packet);

  /// @name Connection
  /// @{

  /// Creates the link and opens it. A link from an earlier call is neither closed nor freed: initialise once. After a
  /// false result ReConnect() is false without trying; make a new client, which may be initialised again.
  /// @return true when the link is open
  bool InitAsTcpClient(std::string ip, int port);  ///< waits up to 5 s
  bool InitAsUdpClient(std::string ip, int port);  ///< needs no listener
  bool InitAsSerialClient(std::string device, unsigned int baud_rate);

  /// Opens the link again and sets IsConnected() to the result; false without a link.
  bool Connect();

  /// Closes the link; false without one. IsConnected() keeps its value: only the steps clear it.
  bool Disconnect() const;

  /// Closes and opens the link up to try_num times without a pause, with a "[VELTA] Try: " line each. IsConnected()
  /// keeps its value in either case. @return true when the link is open again
  bool ReConnect(int try_num);

  bool IsInit() const { return is_init_; }
  bool IsConnected() const { return is_connected_; }

  /// @return "2.1.0"
  std::string GetVersion();
  /// @}

  /// @name Status
  /// @{

  /// @return all buffered packets, oldest first; empties the buffer. A packet that arrives while this runs may be
  /// discarded: taking and emptying are two steps.
  std::vector<RecvPacket> GetCurStatePacket();

  /// GetCurStatePacket() as one compact JSON document per packet. Every number is a string in decimal ("%f" for reals);
  /// keys are in ascending byte order; "joint_id" counts from 1.
  std::vector<std::string> GetCurStateJson();

  RecvPacket GetLastRecvPacket() const;   ///< the newest packet, also one that the full buffer refused
  void FlushRecvBuffer();                 ///< empties the receive buffer; takes the mutex
  std::size_t GetRecvBufferSize() const;  ///< other threads: GetStatistics()
  /// @}

  /// @name Commands
  /// Four roads, all ending in the send step: the plain queue, JSON onto the plain queue, the newest packet per unique
  /// key, and named buffers whose packets are merged at the start of every send step.
  /// @{

  /// Sets packet's confirmation flag and queues a copy at the back. Takes the mutex; any thread.
  void PushSendQueue(SendPacket& packet, bool confirm_received);

  /// The same at the front: it is sent next.
  void PushFrontSendQueue(SendPacket& packet, bool confirm_received);

  /// Queues one command document: {"armOrder":"0","jointCommand":[{"jointName":"1","jointOrder":"17","value1":"0.5",
  /// "value2":"0","value3":"0","value4":"0"}]}. All values are strings; jointName counts from 1; joints that the arm
  /// does not have are skipped; the last command of a joint wins.
  /// @return false, with nothing queued, for text that is not such a document (also one nested more than 100 deep)
  bool PushSendQueueJson(const std::string& json, bool confirm_received);

  SendPacket PopSendQueue();  ///< removes the front packet; from an empty queue SendPacket(0); takes the mutex
  void FlushSendBuffer();     ///< empties the plain queue only; takes the mutex
  std::size_t GetSendBufferSize() const;  ///< packets in the plain queue; elsewhere: GetStatistics()

  /// Files packet under its unique key; sent when the plain queue is empty. Of several waiting keys the first in the
  /// order of a hash table goes: a key that is filed in every step may keep the others waiting.
  void InsertUniqueSendMap(SendPacket& packet);

  /// Adds an empty named buffer; one of that name is kept.
  void CreateIndependentSendPacketBuffer(const std::string& buffer_name);

  /// Marks packet and appends a copy to the named buffer. To an unknown name the call only creates the buffer, and the
  /// packet is dropped: create buffers first.
  void PushBackIndependentSendBuffer(SendPacket& packet, const std::string& buffer_name, bool confirm_received,
                                     bool is_unique, const std::string& unique_key);

  /// Empties the named buffers, in the order of their names, into the plain queue and the unique map. Merged packets
  /// get a fresh time stamp.
  void MergeIndependentSendPacketBuffer();

  /// Writes one frame. Unless keep_timestamp is set, a stamp equal to the previous frame's is raised by 1.
  /// @return false when the link is lost, with "[VELTA] lost connection"; a frame that was not or only partly taken
  /// counts as sent
  bool SendOnce(SendPacket& packet, bool keep_timestamp);

  /// @return whether a command that asked for its confirmation was sent and neither confirmed nor given up yet
  bool IsConfirmationPending() const { return wait_confirm_; }
  /// @}

  /// @return what was received, sent and dropped since the construction; any thread, at any time
  velta::Statistics GetStatistics() const;

 protected:
  /// Chooses what the send step sends next, into cur_send_packet_: the plain queue's front, else the first waiting key.
  /// @return false when nothing waits
  bool TakeNextPacket();

  /// The receive step as far as whole packets.
  /// @param[in,out] packets  overwritten from the front, made longer where that is not enough
  /// @return packets found
  std::size_t CutStatus(std::vector<RecvPacket>& packets);

  /// The confirmation gate of the send step: counts, sends again, gives up.
  /// @return whether the next packet may be chosen in this step
  bool PassGate();

  /// Sends cur_send_packet_ and, if it asks for its confirmation, closes the gate. @return the result of SendOnce
  bool SendChosen();

  AbstractClient* client_ = nullptr;  ///< the link; owned
  int joint_num_;
  bool is_init_ = false;       ///< the link was created and its Init() succeeded
  bool is_connected_ = false;  ///< the connection is believed to be up
  int max_recv_buffer_size_ = 4096;
  PacketParser* packet_parser_ = nullptr;  ///< owned
  std::vector<RecvPacket> recv_buffer_;    ///< guarded by mutex_ but for its size
  std::deque<SendPacket> send_queue_;      ///< guarded by mutex_ but for its size
  std::map<std::string, std::shared_ptr<SendPacketBuffer>> independent_send_buffers_;
  UniqueSendPacketMap unique_send_map_;
  SendPacket cur_send_packet_;  ///< sent last; sent again on a time-out
  RecvPacket last_recv_packet_;
  std::uint64_t last_recv_host_timestamp_ = 0;
  std::uint64_t last_send_timestamp_ = 0;
  bool wait_confirm_ = false;
  bool ready_to_send_ = true;
  int wait_count_ = 0;           ///< send steps spent waiting for the echo
  int timeout_count_ = 0;        ///< time-outs of the current command
  std::mutex* mutex_ = nullptr;  ///< guards recv_buffer_ and send_queue_; never held while the link is used; owned

  struct Parts;  ///< the library's own: what GetStatistics() counts, and memory kept between calls
  std::unique_ptr<Parts> parts_;

 private:
  bool InitAs(std::unique_ptr<AbstractClient> client);
  void Enqueue(SendPacket&& packet);
  bool TakeFront(SendPacket& packet);
  void CountQueued();  ///< after each change of send_queue_, with the mutex still held
  void GiveUp();
};

#endif  // VELTA_MASTER_CONTROLLER_CLIENT_H_
