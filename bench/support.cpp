// SPDX-License-Identifier: MIT
#include "support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace {
thread_local std::uint64_t allocations = 0;

void* Allocate(std::size_t size) {
  ++allocations;
  void* const memory = std::malloc(size != 0 ? size : 1);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
}  // namespace

// The pair replaces the standard one in the whole process; the array forms come down to it.
void* operator new(std::size_t size) { return Allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }

namespace velta::bench {

std::uint64_t Allocations() { return allocations; }

void Require(bool ok, const char* message) {
  if (ok) return;
  std::fprintf(stderr, "%s\n", message);
  std::exit(1);
}

namespace {

// The library's tables and folding again: a floor contains no library code.
using Table = std::array<std::uint16_t, 256>;

constexpr std::array<Table, 8> MakeTables() {
  std::array<Table, 8> tables{};
  for (unsigned i = 0; i < 256; ++i) {
    unsigned crc = i;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xA001u : 0u);
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

unsigned TableCrc(const unsigned char* data, std::size_t length) {
  unsigned crc = 0xFFFF;
  for (; length >= 8; data += 8, length -= 8) {
    std::uint64_t bytes = 0;
    std::memcpy(&bytes, data, sizeof bytes);
    bytes ^= crc;
    crc = 0;
    for (unsigned k = 0; k < 8; ++k) crc ^= kTables[7 - k][bytes >> (8 * k) & 0xFF];
  }
  for (; length > 0; ++data, --length) crc = (crc >> 8) ^ kTables[0][(crc ^ *data) & 0xFF];
  return crc ^ 0xFFFF;
}

#if defined(__x86_64__)

/// x^exponent modulo the polynomial, reflected into the upper 16 bits.
constexpr long long PowerOfX(unsigned exponent) {
  unsigned power = 1;
  for (unsigned i = 0; i < exponent; ++i) power = (power << 1) ^ ((power & 0x8000) != 0 ? 0x18005u : 0u);
  std::uint64_t reflected = 0;
  for (unsigned e = 0; e < 16; ++e) reflected |= std::uint64_t{power >> e & 1} << (63 - e);
  return static_cast<long long>(reflected);
}

constexpr std::uint64_t kPolynomial = 0x14003;  // reflected, with its leading term in bit 0

/// The power series 1 / kPolynomial, 64 terms.
constexpr long long Inverse() {
  std::uint64_t inverse = 0, rest = 1;
  for (int bit = 0; bit < 64; ++bit) {
    if ((rest >> bit & 1) == 0) continue;
    inverse |= std::uint64_t{1} << bit;
    rest ^= kPolynomial << bit;
  }
  return static_cast<long long>(inverse);
}

/// The initial value with a block of zeros on either side.
constexpr std::array<unsigned char, 192> MakeInitial() {
  std::array<unsigned char, 192> bytes{};
  bytes[64] = bytes[65] = 0xFF;
  return bytes;
}
constexpr std::array<unsigned char, 192> kInitial = MakeInitial();

#define VELTA_BENCH_WIDE __attribute__((target("avx512f,avx512bw,avx512vl,vpclmulqdq,pclmul,sse4.1")))

VELTA_BENCH_WIDE inline __m512i Fold(__m512i value, __m512i by, __m512i bytes) {
  return _mm512_ternarylogic_epi64(bytes, _mm512_clmulepi64_epi128(value, by, 0x00),
                                   _mm512_clmulepi64_epi128(value, by, 0x11), 0x96);
}

VELTA_BENCH_WIDE inline __m128i Fold(__m128i value, __m128i by, __m128i bytes) {
  return _mm_ternarylogic_epi64(bytes, _mm_clmulepi64_si128(value, by, 0x00), _mm_clmulepi64_si128(value, by, 0x11),
                                0x96);
}

VELTA_BENCH_WIDE unsigned WideCrc(const unsigned char* data, std::size_t length) {
  // The first block is filled up with zeros in front, which do not count; the initial value goes into the first two
  // bytes of the message, wherever they stand.
  const std::size_t head = (length - 1) % 64 + 1;
  const __mmask64 mask = ~std::uint64_t{0} << (64 - head);
  __m512i value =
      _mm512_xor_si512(_mm512_maskz_loadu_epi8(mask, data - (64 - head)), _mm512_loadu_si512(kInitial.data() + head));
  data += head;
  length -= head;
  const __m512i by512 = _mm512_set4_epi64(PowerOfX(511), PowerOfX(575), PowerOfX(511), PowerOfX(575));
  if (length > 0) {
    value =
        Fold(value, by512, _mm512_xor_si512(_mm512_loadu_si512(data), _mm512_loadu_si512(kInitial.data() + head + 64)));
    data += 64;
    length -= 64;
  }
  if (length >= 256) {
    const __m512i by1024 = _mm512_set4_epi64(PowerOfX(1023), PowerOfX(1087), PowerOfX(1023), PowerOfX(1087));
    __m512i second = _mm512_loadu_si512(data);
    data += 64;
    length -= 64;
    for (; length >= 128; data += 128, length -= 128) {
      value = Fold(value, by1024, _mm512_loadu_si512(data));
      second = Fold(second, by1024, _mm512_loadu_si512(data + 64));
    }
    value = Fold(value, by512, second);
  }
  for (; length > 0; data += 64, length -= 64) value = Fold(value, by512, _mm512_loadu_si512(data));

  const __m128i by128 = _mm_set_epi64x(PowerOfX(127), PowerOfX(191));
  alignas(64) __m128i lanes[4];
  _mm512_store_si512(lanes, value);
  const __m128i last = Fold(Fold(Fold(lanes[0], by128, lanes[1]), by128, lanes[2]), by128, lanes[3]);

  const __m128i moved = _mm_clmulepi64_si128(last, _mm_cvtsi64_si128(PowerOfX(79)), 0x00);
  const auto high = static_cast<std::uint64_t>(_mm_extract_epi64(moved, 1));
  const __m128i eight = _mm_xor_si128(_mm_srli_si128(moved, 6), _mm_srli_si128(last, 8));
  const __m128i quotient = _mm_clmulepi64_si128(eight, _mm_cvtsi64_si128(Inverse()), 0x00);
  const __m128i product = _mm_clmulepi64_si128(quotient, _mm_cvtsi64_si128(kPolynomial), 0x00);
  return static_cast<unsigned>((static_cast<std::uint64_t>(_mm_extract_epi64(product, 1)) ^ high >> 48 ^ 0xFFFF) &
                               0xFFFF);
}

bool HasWide() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx512bw") != 0 && __builtin_cpu_supports("avx512vl") != 0 &&
         __builtin_cpu_supports("vpclmulqdq") != 0;
}

const auto floor_crc = HasWide() ? &WideCrc : &TableCrc;

#else

const auto floor_crc = &TableCrc;

#endif

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

void NoDelay(int fd) {
  const int on = 1;
  Require(setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0, "no TCP_NODELAY");
}

}  // namespace

unsigned FloorCrc(const unsigned char* data, std::size_t length) { return floor_crc(data, length); }

void CloseFrame(char* frame, std::size_t size) {
  const unsigned crc = FloorCrc(reinterpret_cast<const unsigned char*>(frame), size - 2);
  frame[size - 2] = static_cast<char>(crc & 0xFF);
  frame[size - 1] = static_cast<char>(crc >> 8);
}

std::vector<char> StatusFrame(int n, std::uint64_t host_timestamp) {
  std::vector<char> frame(24 + 79 * static_cast<std::size_t>(n), 1);
  frame[0] = static_cast<char>(0xAB);
  frame[1] = static_cast<char>(0xCD);
  std::memcpy(&frame[10], &host_timestamp, sizeof host_timestamp);
  CloseFrame(frame.data(), frame.size());
  return frame;
}

std::vector<char> CommandFrame(int n) {
  std::vector<char> frame(13 + 18 * static_cast<std::size_t>(n));
  frame[0] = static_cast<char>(0xAB);
  frame[1] = static_cast<char>(0xCD);
  for (std::size_t i = 0; i < static_cast<std::size_t>(n); ++i) frame[11 + 18 * i] = static_cast<char>(i);
  CloseFrame(frame.data(), frame.size());
  return frame;
}

Peer::Peer() : listener_(socket(AF_INET, SOCK_STREAM, 0)) {
  sockaddr_in address = Loopback(0);
  socklen_t size = sizeof address;
  Require(bind(listener_, reinterpret_cast<const sockaddr*>(&address), size) == 0 && listen(listener_, 1) == 0 &&
              getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) == 0,
          "no listening socket on loopback");
  port_ = ntohs(address.sin_port);
}

Peer::~Peer() {
  close(fd_);
  close(listener_);
}

void Peer::Accept() {
  fd_ = accept(listener_, nullptr, nullptr);
  Require(fd_ != -1, "nobody connected");
  NoDelay(fd_);
}

void Peer::Send(const std::vector<char>& bytes) const {
  Require(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size()), "send failed");
}

void Peer::Drain() const {
  char bytes[8192];
  while (recv(fd_, bytes, sizeof bytes, MSG_DONTWAIT) == sizeof bytes) {
  }
}

BareSocket::BareSocket(Peer& peer) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
  const sockaddr_in address = Loopback(peer.Port());
  Require(connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "cannot connect");
  peer.Accept();
  NoDelay(fd_);
  fcntl(fd_, F_SETFL, O_NONBLOCK);
}

BareSocket::~BareSocket() { close(fd_); }

int BareSocket::Receive(char* bytes, std::size_t size) const { return PollAndReceive(bytes, size, 0); }

int BareSocket::WaitAndReceive(char* bytes, std::size_t size) const { return PollAndReceive(bytes, size, -1); }

int BareSocket::PollAndReceive(char* bytes, std::size_t size, int timeout_ms) const {
  pollfd request{fd_, POLLIN, 0};
  return poll(&request, 1, timeout_ms) == 1 ? static_cast<int>(recv(fd_, bytes, size, 0)) : 0;
}

void BareSocket::Send(const std::vector<char>& bytes) const {
  pollfd request{fd_, POLLOUT, 0};
  if (poll(&request, 1, 0) == 1) static_cast<void>(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL));
}

int BareSocket::SelectReceive(char* bytes, std::size_t size) const {
  fd_set set;
  FD_ZERO(&set);
  FD_SET(fd_, &set);
  timeval none{};
  return select(fd_ + 1, &set, nullptr, nullptr, &none) == 1 ? static_cast<int>(recv(fd_, bytes, size, 0)) : 0;
}

void BareSocket::SelectSend(const std::vector<char>& bytes) const {
  fd_set set;
  FD_ZERO(&set);
  FD_SET(fd_, &set);
  timeval none{};
  if (select(fd_ + 1, nullptr, &set, nullptr, &none) == 1) {
    static_cast<void>(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL));
  }
}

}  // namespace velta::bench
