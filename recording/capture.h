// SPDX-License-Identifier: MIT
#ifndef VELTA_RECORDING_CAPTURE_H_
#define VELTA_RECORDING_CAPTURE_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "record_bytes.h"
#include "velta_link.h"

struct pcap;

/// @file
/// Captures of network packets, as other programs read and write them: what a recording holds becomes packets, and the
/// packets of a controller become what a recording holds.
namespace velta::recording {

/// Link type of serial lines: a byte with the direction, 0 to the controller and 1 to the host, then what passed.
inline constexpr int kSerialLinkType = 162;  // "user 15"

/// A capture that cannot be read; one line that names the file and the reason.
struct CaptureError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Writes a pcapng capture: TCP with handshake, sequence numbers and end, or UDP datagrams, or bytes of a serial line,
/// with the times of the recording. A recording knows no address of the host: it gets the controller's own if that is a
/// loopback address, else 192.0.2.2. A controller that has a name and no address gets 192.0.2.1.
///
/// Errors:  none reported; the stream's state is the caller's to check.
/// Threads: no lock.
class CaptureWriter {
 public:
  /// Writes the head.
  /// @param out   binary, lives as long as the writer
  /// @param link  the recording's link; what is no TCP and no UDP link is written as a serial line
  CaptureWriter(std::ostream& out, const std::string& link);

  /// @param wall_ns  nanoseconds since the Unix epoch
  /// @param bytes    size bytes, 0 to kMaxRecordBytes
  void Write(Event event, std::uint64_t wall_ns, const char* bytes, std::size_t size);

 private:
  struct Side {
    std::array<std::uint8_t, 4> address{};
    std::uint16_t port = 0;
    std::uint32_t sequence = 0;
  };

  void Block(std::uint32_t type, const std::string& body);
  void Packet(std::uint64_t wall_ns, const std::string& packet);
  void Ip(std::uint64_t wall_ns, Side& from, Side& to, const std::string& payload);
  void Segment(std::uint64_t wall_ns, Side& from, Side& to, std::uint8_t flags, const char* bytes = nullptr,
               std::size_t size = 0);

  std::ostream& out_;
  LinkAddress link_;
  Side host_, controller_;
};

/// What passed in a capture.
struct Captured {
  Event event = Event::kOpened;
  std::uint64_t wall_ns = 0;  ///< never earlier than the one before
  std::vector<char> bytes;    ///< up to kMaxRecordBytes
};

/// Reads what passed between one controller and its hosts out of a capture (pcap or pcapng): IPv4 and IPv6 on Ethernet,
/// Linux "any", loopback or raw, or serial lines of CaptureWriter. TCP segments are put in order, repeated ones dropped;
/// IP fragments are put together. One host at a time, as a controller has it: a new TCP connection, or a datagram of
/// another host, takes the place of the one before. Where the host uses the controller's port too, the controller is
/// the end that accepts the TCP connection, or sends datagrams as long as statuses, or is spoken to first.
///
/// Errors:  CaptureError for a file that is no capture, or of a link type that is not known here. A capture that ends
///          in the middle of a packet ends there, and CutShort() says so.
/// Threads: no lock.
class CaptureReader {
 public:
  /// @param port  the controller's port; of no account for a serial line
  CaptureReader(const std::string& path, int port);
  CaptureReader(const CaptureReader&) = delete;
  CaptureReader& operator=(const CaptureReader&) = delete;
  ~CaptureReader();

  bool IsSerial() const;

  /// @return false at the end; captured is unspecified then
  bool Next(Captured& captured);

  /// The controller's link, as tcp://ADDRESS:PORT, an IPv6 address in brackets; empty before anything was found.
  const std::string& Link() const { return link_; }

  /// What could not be used, up to here.
  std::uint64_t ForeignPackets() const { return foreign_; }      ///< of other hosts on the same port
  std::uint64_t MissingBytes() const { return missing_; }        ///< of TCP streams, not in the capture
  std::uint64_t TruncatedPackets() const { return truncated_; }  ///< of which the capture has only the first bytes
  bool CutShort() const { return cut_short_; }

 private:
  using IpAddress = std::array<std::uint8_t, 16>;       ///< of IPv4 as IPv6 maps it, ::ffff:1.2.3.4
  using Address = std::pair<IpAddress, std::uint16_t>;  ///< with the port
  struct Bytes {
    const std::uint8_t* data;
    std::size_t size;
  };
  struct Stream {
    bool known = false;
    bool ended = false;
    std::uint32_t next = 0;                            ///< sequence number of the byte that is waited for
    std::map<std::uint32_t, std::vector<char>> early;  ///< by sequence number
  };
  struct IpHeader {
    IpAddress source{}, target{};
    std::uint8_t protocol = 0;
    std::uint32_t id = 0;  ///< the same for all fragments of a packet
    std::size_t offset = 0;
    bool more = false;  ///< fragments to come

    bool operator<(const IpHeader& other) const {
      return std::tie(source, target, protocol, id) < std::tie(other.source, other.target, other.protocol, other.id);
    }
  };
  struct Fragments {
    std::map<std::size_t, std::vector<std::uint8_t>> parts;  ///< by offset
    std::size_t size = 0;                                    ///< of the whole; 0 while unknown
  };

  void Packet(Bytes packet);
  void Ip4(Bytes packet);
  void Ip6(Bytes packet);
  void Fragment(const IpHeader& header, Bytes payload);
  void Payload(const IpHeader& header, Bytes payload);
  bool IsToController(const Address& from, const Address& to, std::uint8_t protocol, Bytes payload) const;
  void Datagram(const Address& host, const Address& controller, bool to_controller, Bytes payload);
  void Segment(const Address& host, const Address& controller, bool to_controller, Bytes segment);
  void Take(Event event, std::uint32_t sequence, Bytes bytes);
  void Deliver(Event event);
  void SkipGap(Event event);
  bool Choose(const char* scheme, const Address& host, const Address& controller, bool begins);
  void End();
  void Put(Event event, const char* bytes = nullptr, std::size_t size = 0);

  std::string path_;
  std::unique_ptr<pcap, void (*)(pcap*)> file_;
  int port_;
  int link_type_;
  std::uint64_t now_ns_ = 0;
  std::string link_;
  bool open_ = false;
  Address host_, controller_;                ///< the controller's is known as soon as the link is
  std::array<Stream, 2> streams_;            ///< by event: to the controller, to the host
  std::map<IpHeader, Fragments> fragments_;  ///< by what all fragments of a packet share
  std::vector<Captured> ready_;              ///< the next one last
  std::uint64_t foreign_ = 0, missing_ = 0, truncated_ = 0;
  bool ended_ = false, cut_short_ = false;
};

}  // namespace velta::recording

#endif  // VELTA_RECORDING_CAPTURE_H_
