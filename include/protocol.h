// SPDX-License-Identifier: MIT
#ifndef VELTA_PROTOCOL_H_
#define VELTA_PROTOCOL_H_

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "velta_export.h"

/// @file
/// The two frames of the wire, as the bytes that travel.
///
/// Both begin with the start mark 0xAB 0xCD and end with a CRC-16, low byte first; between them stand the rest of a
/// fixed header and one record per joint, joint 0 first. All numbers are little-endian, reals are IEEE-754 singles in
/// the controller's own units. No frame contains its length or its joint count: both ends must be set to the same n.
///
///   command frame, host to controller:  11 + 18 n + 2 bytes
///   status frame, controller to host:   22 + 79 n + 2 bytes
///
/// The records are packed: copy a field before binding a reference to it (`float p = j.position;`).

static_assert(sizeof(unsigned long) == 8,
              "Velta needs a 64-bit platform: time stamps of 64 bits travel as unsigned long");
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "frame fields are copied as they lie in memory");

namespace velta {
inline constexpr std::uint8_t kStartMark[2] = {0xAB, 0xCD};  ///< first two bytes of every frame
inline constexpr int kCrcSize = 2;                           ///< bytes of the CRC after the last record
}  // namespace velta

/// Header of a command frame, bytes 0..10.
struct __attribute__((packed)) txHeader_t {
  std::uint8_t startMark[2];  ///< 0xAB 0xCD
  std::uint64_t timeStamp;    ///< host time, nanoseconds since the Unix epoch; echoed by the controller
  std::uint8_t armOrder;      ///< ePacketArmOrder code; 0 is none
};

/// One joint of a command frame, 18 bytes.
struct __attribute__((packed)) txJoint_t {
  std::uint8_t id;     ///< joint index, 0-based; equals the record's position (cut to 8 bits)
  std::uint8_t order;  ///< ePacketOrder code; 0 is none
  float value1;        ///< first argument, in the controller's units, unscaled; so are the others
  float value2;        ///< second argument
  float value3;        ///< third argument
  float value4;        ///< fourth argument
};

/// Header of a status frame, bytes 0..21.
struct __attribute__((packed)) rxHeader_t {
  std::uint8_t startMark[2];    ///< 0xAB 0xCD
  std::uint64_t timestamp;      ///< controller's time stamp of this status
  std::uint64_t hostTimestamp;  ///< timeStamp of the command that the controller accepted last
  float duration;               ///< a duration reported by the controller
};

/// One joint of a status frame, 79 bytes. It carries no id: joint i is the record at index i.
struct __attribute__((packed)) rxJoint_t {
  std::uint8_t type;            ///< joint type: 0 revolute, 1 prismatic gripper, 2 revolute gripper
  std::uint8_t comStatus;       ///< communication status; its codes are the controller's
  std::uint8_t systemMode;      ///< 0 servo off, 2 servo on, 3 fault; others are the controller's
  std::uint8_t ctrlMode;        ///< control mode, as SendPacket::SetControlMode lists them
  std::uint32_t ewStatus;       ///< error and warning word; 0 for none, its bits are the controller's
  std::uint8_t trjStatus;       ///< trajectory status, as MasterControllerClientMock lists them
  std::uint16_t trjViaRemain;   ///< trajectory via points still queued
  float refCurrent;             ///< reference current
  float refPosition;            ///< reference position
  float refVelocity;            ///< reference velocity
  float refAcceleration;        ///< reference acceleration
  float refEffort;              ///< reference effort
  float current;                ///< measured current
  float position;               ///< measured position
  float velocity;               ///< measured velocity
  float outConvInVelocity;      ///< output-side velocity converted to the input side
  float acceleration;           ///< measured acceleration
  float outConvInAcceleration;  ///< output-side acceleration converted to the input side
  float effort;                 ///< measured effort
  float temperature;            ///< temperature
  float general[4];             ///< general-purpose registers
};

static_assert(sizeof(txHeader_t) == 11 && alignof(txHeader_t) == 1 && offsetof(txHeader_t, timeStamp) == 2 &&
                  offsetof(txHeader_t, armOrder) == 10 && std::is_trivially_copyable_v<txHeader_t>,
              "frame layout");
static_assert(sizeof(txJoint_t) == 18 && alignof(txJoint_t) == 1 && offsetof(txJoint_t, value1) == 2 &&
                  offsetof(txJoint_t, value4) == 14 && std::is_trivially_copyable_v<txJoint_t>,
              "frame layout");
static_assert(sizeof(rxHeader_t) == 22 && alignof(rxHeader_t) == 1 && offsetof(rxHeader_t, hostTimestamp) == 10 &&
                  offsetof(rxHeader_t, duration) == 18 && std::is_trivially_copyable_v<rxHeader_t>,
              "frame layout");
static_assert(sizeof(rxJoint_t) == 79 && alignof(rxJoint_t) == 1 && offsetof(rxJoint_t, ewStatus) == 4 &&
                  offsetof(rxJoint_t, trjStatus) == 8 && offsetof(rxJoint_t, trjViaRemain) == 9 &&
                  offsetof(rxJoint_t, refCurrent) == 11 && offsetof(rxJoint_t, position) == 35 &&
                  offsetof(rxJoint_t, temperature) == 59 && offsetof(rxJoint_t, general) == 63 &&
                  std::is_trivially_copyable_v<rxJoint_t>,
              "frame layout");

namespace velta {

/// Sizes of a packet of n joints. Counts outside int are held at its bounds, so no joint count overflows; a status
/// frame of such a size, or of a negative one, is never accepted.
struct FrameSizes {
  int header;  ///< bytes before the first record
  int data;    ///< bytes of the n records
  int packet;  ///< bytes of the whole frame, CRC included
};

/// @param jointNum  joints per frame (n)
/// @param header    header size, bytes
/// @param record    joint record size, bytes
constexpr FrameSizes MakeFrameSizes(int jointNum, int header, int record) {
  constexpr std::int64_t kMax = 0x7fffffff;
  const std::int64_t data = std::int64_t{jointNum} * record;
  const auto clamp = [](std::int64_t v) { return static_cast<int>(v > kMax ? kMax : (v < -kMax ? -kMax : v)); };
  return {header, clamp(data), clamp(data + header + kCrcSize)};
}

/// Command frame of n joints: 11, 18 n, 18 n + 13 bytes.
constexpr FrameSizes CommandFrameSizes(int jointNum) {
  return MakeFrameSizes(jointNum, sizeof(txHeader_t), sizeof(txJoint_t));
}

/// Status frame of n joints: 22, 79 n, 79 n + 24 bytes.
constexpr FrameSizes StatusFrameSizes(int jointNum) {
  return MakeFrameSizes(jointNum, sizeof(rxHeader_t), sizeof(rxJoint_t));
}

}  // namespace velta

/// CRC-16/USB: polynomial 0x8005 processed reflected (0xA001), initial value 0xFFFF, input and output reflected, final
/// XOR 0xFFFF; check value 0xB4C8 over the nine ASCII digits "123456789".
///
/// @param data    first byte; may be null when length is 0
/// @param length  bytes to cover, 0..65,535; frame code passes longer lengths cut to 16 bits
/// @return the CRC; 0 for a length of 0
///
/// Thread-safe; cannot fail.
VELTA_API unsigned short CalcCrc16(const unsigned char* data, unsigned short length);

/// The system real-time clock in nanoseconds since 1970-01-01 00:00:00 UTC. It follows changes of the system time.
/// Thread-safe; cannot fail.
VELTA_API unsigned long GetNowTimeStamp();

#endif  // VELTA_PROTOCOL_H_
