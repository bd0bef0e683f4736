// SPDX-License-Identifier: MIT
#ifndef VELTA_MASTER_CONTROLLER_CLIENT_MOCK_H_
#define VELTA_MASTER_CONTROLLER_CLIENT_MOCK_H_

#include <atomic>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "MasterControllerClient.h"
#include "RecvPacket.h"
#include "SendPacket.h"
#include "velta_export.h"

/// A point of a simulated trajectory.
struct TrajViaPoint {
  TrajViaPoint() = default;
  TrajViaPoint(float p, float v, float a, float t) : position(p), velocity(v), acceleration(a), time(t) {}

  float position = 0;      ///< position to reach
  float velocity = 0;      ///< velocity at the point, interpolated into refVelocity
  float acceleration = 0;  ///< carried, never used
  float time = 0;          ///< s on the trajectory clock, counted from the start of the trajectory
};

/// A simulated controller in place of the real client: same interface, no link, no hardware.
///
/// The send step interprets its packet against a simulated status instead of sending it (without the confirmation gate;
/// every packet counts as delivered), the receive step buffers a snapshot of that status, and a state thread advances
/// it once per cycle: time stamp, trajectories, velocities.
///
/// Trajectory status per joint (trjStatus), moved by ManageTrajState unless another cause is named:
///
/// | status              | event                              | next                                           |
/// |---------------------|------------------------------------|------------------------------------------------|
/// | 0, 4, 6, 100 and up | start, points queued               | 1                                              |
/// | 0, 4, 6, 100 and up | start, no point queued             | 102 'f'                                        |
/// | any                 | start, servo not on                | 109 'm'                                        |
/// | 1 start requested   | a point is queued                  | 2, the point taken, the trajectory clock 0     |
/// | 1 start requested   | the queue is empty                 | 102 'f'                                        |
/// | 2 moving            | the clock is at the target's time  | 3                                              |
/// | 2 moving            | the servo is no longer on          | 111 'o'                                        |
/// | 2 moving            | start                              | 1: a new segment begins here                   |
/// | 3 target reached    | a point is queued                  | 2, the point taken                             |
/// | 3 target reached    | the queue is empty                 | 4 finished                                     |
/// | any                 | cancel                             | 5                                              |
/// | 5 cancel requested  |                                    | 6 cancelled, the queue emptied                 |
/// | 100 and up          | via points cleared                 | 0 idle                                         |
///
/// Units:   cycle in ms; status timestamp in us of simulated time; duration (the trajectory clock, one for all joints)
///          in s; positions in whatever the host commands, velocity in position units per second.
/// Errors:  unknown codes, joint types and joints are ignored.
/// Threads: the groups of MasterControllerClient; SetRecvBuffer, SetJointType and ParseSendPacket belong to the steps.
///          One detached state thread of its own: it holds state_mutex_ for every cycle, as ParseSendPacket does;
///          ReceiveStatus and SetJointType do not, so a snapshot may mix two cycles. The two mutexes are never nested.
///          The destructor waits for the state thread: up to one cycle and 10 ms.
class VELTA_API MasterControllerClientMock : public MasterControllerClient {
 public:
  /// Starts the state thread; IsInit() and IsConnected() are true at once.
  /// @param joint_num joints of the arm (n)
  /// @param cycle_ms  simulation step in ms, at least 1
  MasterControllerClientMock(int joint_num, int cycle_ms);
  ~MasterControllerClientMock() override;

  /// Buffers one snapshot of the simulated status, without a bound.
  /// @return packets now in the receive buffer
  int ReceiveStatus() override;

  /// Takes the next packet as the real step does and interprets it.
  void SendPacketInBuffer() override;

  /// Takes packet in as if it had arrived from the controller.
  void SetRecvBuffer(RecvPacket packet);

  /// Sets the type of a joint (0-based); nothing for a joint that does not exist. Takes no lock.
  void SetJointType(int joint, unsigned char type);

  /// The same by name: "revolute" 0, "gripper_prismatic" 1, "gripper_revolute" 2; nothing for any other.
  void SetJointType(int joint, const std::string& type_name);

  /// Interprets one command packet: echoes its time stamp, then applies each joint's command. A packet with an arm
  /// order only echoes. Records beyond the simulated joints are skipped. Takes state_mutex_.
  void ParseSendPacket(const SendPacket& packet);

 protected:
  /// @name Steps of the simulation
  /// All but the thread procedure run with state_mutex_ held, and ignore a joint that does not exist.
  /// @{
  void ParseJointOrder(unsigned char joint, unsigned char order, float value1, float value2, float value3,
                       float value4);
  void ParseWholeOrder(unsigned char arm_order, float value1, float value2, float value3, float value4);
  void TrajControlStart(unsigned char joint);
  void ManageTrajState();
  void ManageInnerStateThreadProc();
  /// @}

  static const std::map<std::string, unsigned char> joint_type_str_to_num_map_;

  std::unique_ptr<std::thread> state_thread_;  ///< detached; kept to know that a thread was started
  std::atomic<bool> is_running_{true};
  std::atomic<bool> is_thread_finished_{false};
  int cycle_ms_;
  RecvPacket inner_state_;
  std::vector<std::deque<TrajViaPoint>> traj_via_points_;  ///< n queues
  std::vector<TrajViaPoint> traj_target_;                  ///< n points that the running segments move to
  std::vector<TrajViaPoint> traj_start_;                   ///< n points that they started from
  std::mutex state_mutex_;                                 ///< guards the simulated status and trajectories

 private:
  void ManageJoint(std::size_t joint, bool& clock_advanced);
};

#endif  // VELTA_MASTER_CONTROLLER_CLIENT_MOCK_H_
