// SPDX-License-Identifier: MIT
#include "crc16.h"

#include <array>
#include <cstdint>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace velta::detail {

namespace {

using Table = std::array<std::uint16_t, 256>;

constexpr std::uint16_t kReflectedPolynomial = 0xA001;

/// kTables[0] is the byte-wise table (entry 1 is 0xC0C1); kTables[k] looks a byte up that k more bytes follow.
constexpr std::array<Table, 8> MakeTables() {
  std::array<Table, 8> tables{};
  for (unsigned i = 0; i < 256; ++i) {
    unsigned crc = i;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? kReflectedPolynomial : 0u);
    tables[0][i] = static_cast<std::uint16_t>(crc);
  }
  for (std::size_t k = 1; k < tables.size(); ++k) {
    for (std::size_t i = 0; i < 256; ++i) {
      const unsigned crc = tables[k - 1][i];
      tables[k][i] = static_cast<std::uint16_t>((crc >> 8) ^ tables[0][crc & 0xFF]);
    }
  }
  return tables;
}

constexpr std::array<Table, 8> kTables = MakeTables();
static_assert(kTables[0][1] == 0xC0C1);

unsigned ByteStep(unsigned crc, unsigned char byte) { return (crc >> 8) ^ kTables[0][(crc ^ byte) & 0xFF]; }

/// The remainder of eight bytes, given as they lie in memory, with the running CRC already in the first two.
unsigned EightBytes(std::uint64_t bytes) {
  unsigned crc = 0;
  for (unsigned k = 0; k < 8; ++k) crc ^= kTables[7 - k][bytes >> (8 * k) & 0xFF];
  return crc;
}

}  // namespace

unsigned short Crc16Sliced(const unsigned char* data, std::size_t length) {
  if (length == 0) return 0;
  unsigned crc = 0xFFFF;
  for (; length >= 8; data += 8, length -= 8) {
    std::uint64_t bytes = 0;
    std::memcpy(&bytes, data, sizeof bytes);
    crc = EightBytes(bytes ^ crc);
  }
  for (; length > 0; ++data, --length) crc = ByteStep(crc, *data);
  return static_cast<unsigned short>(crc ^ 0xFFFF);
}

#if defined(__x86_64__)

namespace {

/// x^exponent modulo the polynomial x^16 + x^15 + x^2 + 1, its highest coefficient in the lowest of the upper 16 bits:
/// the order in which a reflected CRC keeps polynomials in a register.
constexpr std::uint64_t PowerOfX(unsigned exponent) {
  unsigned power = 1;
  for (unsigned i = 0; i < exponent; ++i) power = (power << 1) ^ ((power & 0x8000) != 0 ? 0x18005u : 0u);
  std::uint64_t reflected = 0;
  for (unsigned e = 0; e < 16; ++e) reflected |= std::uint64_t{power >> e & 1} << (63 - e);
  return reflected;
}

/// Multipliers that move 16 bytes ahead by a number of bits. The product of two reflected registers is one place short,
/// hence the exponents less one.
struct Shift {
  std::uint64_t first, second;  ///< for the first and the second eight bytes
};
constexpr Shift ShiftBy(unsigned bits) { return {PowerOfX(bits + 63), PowerOfX(bits - 1)}; }

constexpr Shift kBy128 = ShiftBy(128);
constexpr Shift kBy256 = ShiftBy(256);
constexpr Shift kBy384 = ShiftBy(384);
constexpr Shift kBy512 = ShiftBy(512);

__attribute__((target("avx,pclmul"))) inline __m128i Load(const unsigned char* data) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(data));
}

__attribute__((target("avx,pclmul"))) inline __m128i Constant(const Shift& shift) {
  return _mm_set_epi64x(static_cast<long long>(shift.second), static_cast<long long>(shift.first));
}

/// value moved ahead by the constant's bits, with the bytes that stand there added.
__attribute__((target("avx,pclmul"))) inline __m128i Fold(__m128i value, __m128i by, __m128i bytes) {
  return _mm_xor_si128(bytes,
                       _mm_xor_si128(_mm_clmulepi64_si128(value, by, 0x00), _mm_clmulepi64_si128(value, by, 0x11)));
}

}  // namespace

__attribute__((target("avx,pclmul"))) unsigned short Crc16Folded(const unsigned char* data, std::size_t length) {
  // The odd bytes come first, moved to the end of a register whose front is zero: leading zeros do not count, and all
  // that follows is whole registers. The initial value 0xFFFF goes into the first two bytes.
  const std::size_t odd = length % 16;
  __m128i value = _mm_xor_si128(Load(data), _mm_cvtsi32_si128(0xFFFF));
  __m128i initial_rest = _mm_setzero_si128();
  if (odd != 0) {
    alignas(16) static constexpr signed char kMove[32] = {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1,
                                                          -1, -1, -1, -1, -1, 0,  1,  2,  3,  4,  5,
                                                          6,  7,  8,  9,  10, 11, 12, 13, 14, 15};
    value = _mm_shuffle_epi8(value, Load(reinterpret_cast<const unsigned char*>(kMove) + odd));
    if (odd == 1) initial_rest = _mm_cvtsi32_si128(0xFF);
    data += odd;
  } else {
    data += 16;
    length -= 16;
  }
  length -= odd;  // bytes left from data on; a multiple of 16, at least 16

  const __m128i by128 = Constant(kBy128);
  value = Fold(value, by128, _mm_xor_si128(Load(data), initial_rest));
  data += 16;
  length -= 16;
  if (length >= 48) {
    const __m128i by512 = Constant(kBy512);
    __m128i lane0 = value;  // the other lanes start one, two and three registers ahead of it
    __m128i lane1 = Load(data), lane2 = Load(data + 16), lane3 = Load(data + 32);
    data += 48;
    length -= 48;
    for (; length >= 64; data += 64, length -= 64) {
      lane0 = Fold(lane0, by512, Load(data));
      lane1 = Fold(lane1, by512, Load(data + 16));
      lane2 = Fold(lane2, by512, Load(data + 32));
      lane3 = Fold(lane3, by512, Load(data + 48));
    }
    value = Fold(lane0, Constant(kBy384), Fold(lane1, Constant(kBy256), Fold(lane2, by128, lane3)));
  }
  for (; length > 0; data += 16, length -= 16) value = Fold(value, by128, Load(data));

  // 16 bytes to 10: the first eight move after the last eight; then eight bytes by table, and two are left.
  constexpr std::uint64_t kBy80 = PowerOfX(79);
  const __m128i head = _mm_clmulepi64_si128(value, _mm_cvtsi64_si128(static_cast<long long>(kBy80)), 0x00);
  const auto low = static_cast<std::uint64_t>(_mm_cvtsi128_si64(head));
  const auto high = static_cast<std::uint64_t>(_mm_extract_epi64(head, 1));
  const auto second = static_cast<std::uint64_t>(_mm_extract_epi64(value, 1));
  const std::uint64_t eight = (low >> 48 | high << 16) ^ second;
  return static_cast<unsigned short>(EightBytes(eight) ^ (high >> 48) ^ 0xFFFF);
}

bool Crc16CanFold() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("pclmul") != 0 && __builtin_cpu_supports("avx") != 0;
}

#else

unsigned short Crc16Folded(const unsigned char* data, std::size_t length) { return Crc16Sliced(data, length); }

bool Crc16CanFold() { return false; }

#endif

}  // namespace velta::detail
