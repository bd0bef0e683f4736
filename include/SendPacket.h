// SPDX-License-Identifier: MIT
#ifndef VELTA_SEND_PACKET_H_
#define VELTA_SEND_PACKET_H_

#include <initializer_list>
#include <string>
#include <vector>

#include "protocol.h"
#include "velta_export.h"

/// Command codes per joint, stored in txJoint_t::order; 0 leaves the joint idle.
/// The flag-clear trajectory codes (0x4A..0x4E) are the flag-set ones (0x3A..0x3E) plus 0x10.
enum class ePacketOrder : unsigned char {
  RefCurrent = 0x10,                       ///< current reference
  RefPosition = 0x11,                      ///< position reference
  RefVelocity = 0x12,                      ///< velocity reference
  RefPositionVelocity = 0x1A,              ///< position and velocity reference
  RefPositionVelocityAcceleration = 0x1B,  ///< position, velocity and acceleration reference
  Dynamics = 0x20,                         ///< dynamics values
  TrajectoryViaClear = 0x30,               ///< clear the joint's trajectory via points
  TrajectoryControlStart = 0x35,           ///< start trajectory control
  TrajectoryControlCancel = 0x36,          ///< cancel trajectory control
  TrajectoryPT_LinSpline1 = 0x3A,          ///< position-time point, linear spline, flag set
  TrajectoryPT_Trapezoidal1 = 0x3B,        ///< position-time point, trapezoidal profile, flag set
  TrajectoryPT_DoubleS1 = 0x3C,            ///< position-time point, double-S profile, flag set
  TrajectoryPVT1 = 0x3D,                   ///< position-velocity-time point, flag set
  TrajectoryPVAT1 = 0x3E,                  ///< position-velocity-acceleration-time point, flag set
  TrajectoryPT_LinSpline0 = 0x4A,          ///< as 0x3A, flag clear
  TrajectoryPT_Trapezoidal0 = 0x4B,        ///< as 0x3B, flag clear
  TrajectoryPT_DoubleS0 = 0x4C,            ///< as 0x3C, flag clear
  TrajectoryPVT0 = 0x4D,                   ///< as 0x3D, flag clear
  TrajectoryPVAT0 = 0x4E,                  ///< as 0x3E, flag clear
  TrajectoryP_DoubleS = 0x50,              ///< position target, double-S profile
  Reset = 0xA0,                            ///< reset the joint
  ServoOff = 0xA1,                         ///< servo off
  ServoOn = 0xA2,                          ///< servo on
  ControlMode = 0xA3,                      ///< select a control mode, its number in value1
  GetSlaveEffortOffset = 0xAB,             ///< take the effort offset
  ParamKp = 0xB0,                          ///< parameter Kp
  ParamKi = 0xB1,                          ///< parameter Ki
  ParamKd = 0xB2,                          ///< parameter Kd
  ParamWindupLimit = 0xB3,                 ///< windup limit
  ParamVelocityOverride = 0xBA,            ///< velocity override
  ParamVelocityMax = 0xBB,                 ///< maximum velocity
  ParamAccelerationMax = 0xBC,             ///< maximum acceleration
  ParamJerkMax = 0xBD,                     ///< maximum jerk
  ArbitraryParam = 0xBF,                   ///< set parameter number value1 to value2
  BrakeOff = 0xC0,                         ///< release the brake
  BrakeOn = 0xC1,                          ///< apply the brake
  MoveHomePosition = 0xD0,                 ///< move to the home position
  GeneralRegisterType = 0xE0,              ///< general register type, two integers
  FaultInjection = 0xFF,                   ///< fault injection, understood by the simulator only; has no named setter
};

/// Command codes of the whole arm, stored in txHeader_t::armOrder; 0 for none. The arguments travel in the
/// values of joint 0. A code space of its own, although some numbers also appear in ePacketOrder.
enum class ePacketArmOrder : unsigned char {
  Payload = 0xA0,                       ///< payload, four values
  PayloadInertiaTensorDiagonal = 0xA1,  ///< payload inertia tensor, diagonal terms
  PayloadInertiaTensorTriangle = 0xA2,  ///< payload inertia tensor, off-diagonal terms
  GripperMaxEffort = 0xB0,              ///< maximum gripper effort
};

/// One command frame as an object: header, one record per joint, and what the send path needs to know about it.
///
/// Joints are named by index or by an ID string: "all", or 0-based decimal indices separated by "/" ("0/2/5").
/// A token may have leading blanks and a sign and is read up to its first non-digit ("2a" is 2); there is no range
/// syntax. Tokens that are not a number, or name no joint, are skipped; a joint named twice is set twice.
///
/// Units:   time stamps in nanoseconds since the Unix epoch; values in the controller's units, unscaled.
/// Errors:  none reported. Invalid ids, value numbers and ID tokens are skipped, the rest is carried out.
/// Threads: no lock; one thread at a time per object.
class VELTA_API SendPacket {
 public:
  /// All joints idle, stamped with GetNowTimeStamp(), unconfirmed, not unique.
  /// @param jointNum joints of the arm (n); below 1 there are no records
  explicit SendPacket(int jointNum);
  SendPacket(const SendPacket&) = default;
  SendPacket& operator=(const SendPacket&) = default;
  SendPacket(SendPacket&& other) noexcept;             ///< leaves a packet without joints
  SendPacket& operator=(SendPacket&& other) noexcept;  ///< leaves a packet without joints, too
  void swap(SendPacket& other) noexcept;
  virtual ~SendPacket();

  txHeader_t header;              ///< frame bytes 0..10
  std::vector<txJoint_t> joints;  ///< exactly jointNum records, joints[i].id == i (cut to 8 bits)
  int jointNum;                   ///< joints of the arm (n)
  int headerSize;                 ///< 11 bytes
  int dataSize;                   ///< 18 n bytes
  int packetSize;                 ///< 18 n + 13 bytes
  bool confirmReceived = false;   ///< the sender waits until the controller echoes the time stamp
  bool isUnique = false;          ///< a newer packet of the same key replaces this one
  std::string uniqueKey;          ///< the key, when isUnique is set

  int GetDataSize() const { return dataSize; }
  int GetPacketSize() const { return packetSize; }
  bool GetConfirmReceived() const { return confirmReceived; }
  void SetConfirmReceived(bool confirm) { confirmReceived = confirm; }
  bool IsUnique() const { return isUnique; }
  void SetIsUnique(bool unique) { isUnique = unique; }
  const std::string& GetUniqueKey() const { return uniqueKey; }
  void SetUniqueKey(const std::string& key) { uniqueKey = key; }
  unsigned long GetTimeStamp() const { return header.timeStamp; }
  void SetTimeStamp(unsigned long timeStamp) { header.timeStamp = timeStamp; }
  void SetArmOrder(ePacketArmOrder order) { header.armOrder = static_cast<unsigned char>(order); }
  void SetArmOrder(int order) { SetArmOrder(static_cast<ePacketArmOrder>(order)); }  ///< low 8 bits

  bool IsValidID(int id) const { return id >= 0 && id < jointNum; }  ///< 0..n-1
  static bool IsValidValueNum(int n) { return n >= 1 && n <= 4; }    ///< 1..4

  /// Sets the code of one joint, or of each listed joint in the list's order; its values stay as they are.
  void SetJointOrder(int id, ePacketOrder order);
  void SetJointOrder(const std::vector<int>& ids, ePacketOrder order);

  /// Writes v into value n (1..4) of one joint, or of each listed joint.
  void SetValue(int id, int n, float v);
  void SetValue(const std::vector<int>& ids, int n, float v);

  /// @return the joint indices that an ID string names, in its order, duplicates kept
  std::vector<int> ParseIDString(const std::string& ids) const;

  /// Writes code and all four values of every named joint: what every named joint setter below comes down to.
  void SetCommonCommand(const std::string& ids, ePacketOrder order, float value1, float value2, float value3,
                        float value4);
  void SetCommonCommand(const std::string& ids, int order, float value1, float value2, float value3, float value4);

  /// @return the frame: 18 n + 13 bytes, CRC over all before it (its length cut to 16 bits). A negative n gives the 13
  /// bytes of a frame without joints.
  std::vector<char> GetCharVector() const;

  /// @name Joint commands
  /// Each writes its code and the four values of every joint that `ids` names; values without an argument become 0. The
  /// arguments fill value1 to value4 in the order in which they are passed, unscaled: positions, velocities (per s),
  /// accelerations (per s^2), currents and gains are in the controller's units, as its status reports them.
  /// @{
  void SetReset(const std::string& ids);  ///< clears a fault; the servo is off afterwards
  void SetServoOff(const std::string& ids);
  void SetServoOn(const std::string& ids);
  void SetBrakeOff(const std::string& ids);  ///< releases the brake
  void SetBrakeOn(const std::string& ids);   ///< applies the brake

  /// Control modes:
  ///
  /// | mode | joint follows                                                       |
  /// |------|---------------------------------------------------------------------|
  /// | 0    | a trajectory of queued points                                       |
  /// | 1    | velocity references                                                 |
  /// | 2    | current references                                                  |
  /// | 5    | an external force                                                   |
  /// | 7    | position references, each by a trajectory planned when it arrives   |
  /// | 10   | nothing: its rotation is fixed                                      |
  /// | 20   | position references                                                 |
  /// @param ids   joints, as an ID string
  /// @param mode  one of these, or any other number that the controller knows
  void SetControlMode(const std::string& ids, int mode);
  void SetPositionControlMode(const std::string& ids);                ///< mode 20
  void SetVelocityControlMode(const std::string& ids);                ///< mode 1
  void SetCurrentControlMode(const std::string& ids);                 ///< mode 2
  void SetExternalForceFollowingControlMode(const std::string& ids);  ///< mode 5
  void SetTrajectoryControlMode(const std::string& ids);              ///< mode 0
  void SetOnlineTrajectoryControlMode(const std::string& ids);        ///< mode 7
  void SetRotationFixedControlMode(const std::string& ids);           ///< mode 10
  void SetGetSlaveEffortOffset(const std::string& ids);               ///< takes the present effort as the offset

  void SetParamKp(const std::string& ids, float v);                ///< v: proportional gain
  void SetParamKi(const std::string& ids, float v);                ///< v: integral gain
  void SetParamKd(const std::string& ids, float v);                ///< v: differential gain
  void SetParamWindupLimit(const std::string& ids, float v);       ///< v: limit of the integrated error
  void SetParamVelocityOverride(const std::string& ids, float v);  ///< v: factor of planned velocities
  void SetParamVelocityMax(const std::string& ids, float v);       ///< v: maximum velocity
  void SetParamAccelerationMax(const std::string& ids, float v);   ///< v: maximum acceleration
  void SetParamJerkMax(const std::string& ids, float v);           ///< v: maximum jerk (per s^3)
  void SetParamExtFFOnTrajSoftnessOverride(const std::string& ids,
                                           float v);  ///< v: softness, parameter 80 of SetArbitraryParam
  void SetArbitraryParam(const std::string& ids, int param, float v);  ///< param: the parameter's number; v: its value

  void SetRefCurrent(const std::string& ids, float c);                    ///< c: current
  void SetRefPosition(const std::string& ids, float p);                   ///< p: position
  void SetRefVelocity(const std::string& ids, float v);                   ///< v: velocity
  void SetRefPositionVelocity(const std::string& ids, float p, float v);  ///< p: position; v: velocity there
  /// p: position; v: velocity there; a: acceleration there
  void SetRefPositionVelocityAcceleration(const std::string& ids, float p, float v, float a);
  /// a, b, c: dynamics values of the controller, in its order; d is dropped, value4 is always 0
  void SetDynamics(const std::string& ids, float a, float b, float c, float d);

  void SetTrajectoryViaClear(const std::string& ids);            ///< removes the queued points
  void SetTrajectoryControlStart(const std::string& ids);        ///< starts to move along the queued points
  void SetTrajectoryControlCancel(const std::string& ids);       ///< stops, and removes the queued points
  void SetTrajectoryP_DoubleS(const std::string& ids, float a);  ///< a: target position, with a double-S profile
  /// @}

  /// @name Points of a trajectory
  /// Each queues one point per joint; SetTrajectoryControlStart begins to move. Times count from the start of the
  /// trajectory, in s. flag chooses between two codes (0x3A..0x3E if set, else 0x4A..0x4E), which the controller tells
  /// apart; the simulator knows only the former.
  /// @{
  void SetTrajectoryPT_LinSpline(const std::string& ids, float a, float b, bool flag);    ///< a: position; b: time
  void SetTrajectoryPT_Trapezoidal(const std::string& ids, float a, float b, bool flag);  ///< a: position; b: time
  void SetTrajectoryPT_DoubleS(const std::string& ids, float a, float b, bool flag);      ///< a: position; b: time
  /// a: position; b: velocity there; c: time
  void SetTrajectoryPVT(const std::string& ids, float a, float b, float c, bool flag);
  /// a: position; b: velocity there; c: acceleration there; d: time
  void SetTrajectoryPVAT(const std::string& ids, float a, float b, float c, float d, bool flag);
  void SetMoveHomePosition(const std::string& ids);  ///< moves to the home position at once
  /// a, b: what the general registers of a status show, by the controller's numbers
  void SetGeneralRegisterType(const std::string& ids, int a, int b);
  /// @}

  /// @name Arm commands
  /// Each stores its code in the header and its arguments in joint 0's first values, in the controller's units; the
  /// code and the other values of joint 0 stay. Without a joint 0 the arguments are lost.
  /// @{
  void SetPayload(float a, float b, float c,
                  float d);  ///< a to d: mass and centre of the payload, in the controller's order
  void SetPayloadInertiaTensorDiagonal(float a, float b, float c);  ///< a, b, c: diagonal terms of the inertia tensor
  void SetPayloadInertiaTensorTriangle(float a, float b, float c);  ///< a, b, c: terms off the diagonal
  void SetGripperMaxEffort(float e);                                ///< e: maximum effort of the gripper
                                                                    /// @}

 private:
  void SetArmCommand(ePacketArmOrder order, std::initializer_list<float> values);
};

#endif  // VELTA_SEND_PACKET_H_
