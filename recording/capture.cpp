// SPDX-License-Identifier: MIT
#include "capture.h"

#include <arpa/inet.h>
#include <pcap/pcap.h>

#include <algorithm>
#include <cstring>
#include <ostream>

namespace velta::recording {

namespace {

constexpr std::uint8_t kTcp = 6, kUdp = 17;
constexpr std::uint8_t kFin = 0x01, kSyn = 0x02, kRst = 0x04, kPush = 0x08, kAck = 0x10;
constexpr std::size_t kIpHeader = 20, kIp6Header = 40, kTcpHeader = 20, kUdpHeader = 8;

// ---------------------------------------------------------------------------------------------------------- writing

constexpr std::size_t kMaxSegment = 32768;
constexpr std::uint16_t kFirstHostPort = 49152;  // of those that systems choose
constexpr std::uint16_t kLinkTypeRaw = 101;

/// Numbers as captures (little-endian, as this section says) and networks (big-endian) have them.
template <typename T>
std::string Little(T value) {
  std::string text;
  for (std::size_t i = 0; i < sizeof value; ++i) text += static_cast<char>(value >> (8 * i));
  return text;
}

template <typename T>
std::string Big(T value) {
  std::string text = Little(value);
  std::reverse(text.begin(), text.end());
  return text;
}

std::string Padded(std::string text) {
  text.resize((text.size() + 3) / 4 * 4);
  return text;
}

std::string Option(std::uint16_t code, const std::string& value) {
  return Little(code) + Little(static_cast<std::uint16_t>(value.size())) + Padded(value);
}

std::string Text(const std::array<std::uint8_t, 4>& address) { return {address.begin(), address.end()}; }

/// The Internet checksum.
std::uint16_t Checksum(const std::string& bytes) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const std::uint32_t byte = static_cast<std::uint8_t>(bytes[i]);
    sum += i % 2 == 0 ? byte << 8 : byte;
  }
  while (sum >> 16 != 0) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<std::uint16_t>(~sum);
}

void Insert(std::string& bytes, std::size_t at, std::uint16_t checksum) { bytes.replace(at, 2, Big(checksum)); }

}  // namespace

CaptureWriter::CaptureWriter(std::ostream& out, const std::string& link) : out_(out) {
  std::string why;
  const std::size_t bracket = link.find(']');  // an IPv6 address, which is no name of a host
  const std::string address =
      bracket == std::string::npos ? link : link.substr(0, 6) + "host" + link.substr(bracket + 1);
  if (!ParseLinkAddress(address, link_, why)) link_.kind = LinkAddress::Kind::kSerial;
  controller_.port = static_cast<std::uint16_t>(link_.port);
  if (inet_pton(AF_INET, link_.host.c_str(), controller_.address.data()) != 1) controller_.address = {192, 0, 2, 1};
  if (controller_.address[0] == 127) {
    host_.address = controller_.address;
  } else {
    host_.address = {192, 0, 2, 2};
  }
  host_.port = kFirstHostPort - 1;
  const bool is_ip = link_.kind == LinkAddress::Kind::kTcp || link_.kind == LinkAddress::Kind::kUdp;
  const std::string end = Option(0, "");
  Block(0x0A0D0D0A, Little(std::uint32_t{0x1A2B3C4D}) + Little(std::uint16_t{1}) + Little(std::uint16_t{0}) +
                        Little(~std::uint64_t{0}) + Option(4, "velta") + end);
  Block(1, Little(is_ip ? kLinkTypeRaw : std::uint16_t{kSerialLinkType}) + Little(std::uint16_t{0}) +
               Little(std::uint32_t{262144}) + Option(2, link) + Option(9, "\x09") + end);  // times in 10^-9 s
}

void CaptureWriter::Block(std::uint32_t type, const std::string& body) {
  const std::string size = Little(static_cast<std::uint32_t>(body.size() + 12));
  out_ << Little(type) << size << body << size;
}

void CaptureWriter::Packet(std::uint64_t wall_ns, const std::string& packet) {
  const std::string size = Little(static_cast<std::uint32_t>(packet.size()));
  Block(6, Little(std::uint32_t{0}) + Little(static_cast<std::uint32_t>(wall_ns >> 32)) +
               Little(static_cast<std::uint32_t>(wall_ns)) + size + size + Padded(packet));
}

void CaptureWriter::Ip(std::uint64_t wall_ns, Side& from, Side& to, const std::string& payload) {
  const std::uint8_t protocol = link_.kind == LinkAddress::Kind::kUdp ? kUdp : kTcp;
  const std::string addresses = Text(from.address) + Text(to.address);
  std::string checked = payload;
  const std::string length = Big(static_cast<std::uint16_t>(payload.size()));
  const std::uint16_t sum = Checksum(addresses + Big(std::uint16_t{protocol}) + length + payload);
  Insert(checked, protocol == kUdp ? 6 : 16, protocol == kUdp && sum == 0 ? std::uint16_t{0xFFFF} : sum);
  std::string header = Big(std::uint16_t{0x4500}) + Big(static_cast<std::uint16_t>(kIpHeader + payload.size())) +
                       Big(std::uint16_t{0}) + Big(std::uint16_t{0x4000}) +
                       Big(static_cast<std::uint16_t>(64 << 8 | protocol)) + Big(std::uint16_t{0}) + addresses;
  Insert(header, 10, Checksum(header));
  Packet(wall_ns, header + checked);
}

void CaptureWriter::Segment(std::uint64_t wall_ns, Side& from, Side& to, std::uint8_t flags, const char* bytes,
                            std::size_t size) {
  std::string segment = Big(from.port) + Big(to.port) + Big(from.sequence) +
                        Big((flags & kAck) != 0 ? to.sequence : 0) +
                        Big(static_cast<std::uint16_t>(kTcpHeader / 4 << 12 | flags)) + Big(std::uint16_t{0xFFFF}) +
                        Big(std::uint32_t{0});
  if (size != 0) segment.append(bytes, size);
  Ip(wall_ns, from, to, segment);
  from.sequence += static_cast<std::uint32_t>(size) + ((flags & (kSyn | kFin)) != 0 ? 1 : 0);
}

void CaptureWriter::Write(Event event, std::uint64_t wall_ns, const char* bytes, std::size_t size) {
  const bool carries = event == Event::kToController || event == Event::kToHost;
  Side& from = event == Event::kToHost ? controller_ : host_;
  Side& to = event == Event::kToHost ? host_ : controller_;
  if (link_.kind == LinkAddress::Kind::kTcp) {
    switch (event) {
      case Event::kOpened:
        host_.port = host_.port == 0xFFFF ? kFirstHostPort : static_cast<std::uint16_t>(host_.port + 1);
        host_.sequence = controller_.sequence = 0;
        Segment(wall_ns, host_, controller_, kSyn);
        Segment(wall_ns, controller_, host_, kSyn | kAck);
        Segment(wall_ns, host_, controller_, kAck);
        break;
      case Event::kClosed:
        Segment(wall_ns, host_, controller_, kFin | kAck);
        Segment(wall_ns, controller_, host_, kFin | kAck);
        break;
      default:
        for (std::size_t at = 0; at < size; at += kMaxSegment) {
          Segment(wall_ns, from, to, kPush | kAck, bytes + at, std::min(size - at, kMaxSegment));
        }
    }
  } else if (link_.kind == LinkAddress::Kind::kUdp) {
    if (event == Event::kOpened) ++host_.port;
    if (!carries) return;
    const auto length = static_cast<std::uint16_t>(kUdpHeader + size);
    Ip(wall_ns, from, to,
       Big(from.port) + Big(to.port) + Big(length) + Big(std::uint16_t{0}) + std::string(bytes, size));
  } else if (carries) {
    Packet(wall_ns, std::string(1, static_cast<char>(event)) + std::string(bytes, size));
  }
}

// ---------------------------------------------------------------------------------------------------------- reading

namespace {

constexpr std::size_t kMaxEarly = 64;       // segments that come before a missing one: then it is given up
constexpr std::size_t kMaxFragmented = 64;  // packets of which fragments are waited for

std::uint16_t Big16(const std::uint8_t* at) { return static_cast<std::uint16_t>(at[0] << 8 | at[1]); }
std::uint32_t Big32(const std::uint8_t* at) { return std::uint32_t{Big16(at)} << 16 | Big16(at + 2); }

/// How far a sequence number is ahead of another; they wrap round.
std::int32_t Ahead(std::uint32_t sequence, std::uint32_t other) { return static_cast<std::int32_t>(sequence - other); }

constexpr int kUnknown = -1;

/// @return bytes before the IP header on a link of this type; kUnknown for one that is not supported
int LinkHeader(int type) {
  switch (type) {
    case DLT_EN10MB:
      return 14;
    case DLT_NULL:
    case DLT_LOOP:
      return 4;
    case DLT_LINUX_SLL:
      return 16;
    case DLT_LINUX_SLL2:
      return 20;
    case DLT_RAW:
    case DLT_IPV4:
    case DLT_IPV6:
    case kSerialLinkType:
      return 0;
    default:
      return kUnknown;
  }
}

/// An IPv6 address in brackets, as links have it.
std::string AddressText(const std::array<std::uint8_t, 16>& address) {
  char text[INET6_ADDRSTRLEN] = "";
  constexpr std::array<std::uint8_t, 12> kMapped = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
  if (std::equal(kMapped.begin(), kMapped.end(), address.begin()))
    return inet_ntop(AF_INET, &address[12], text, sizeof text);
  return "[" + std::string(inet_ntop(AF_INET6, address.data(), text, sizeof text)) + "]";
}

}  // namespace

CaptureReader::CaptureReader(const std::string& path, int port) : path_(path), file_(nullptr, pcap_close), port_(port) {
  char why[PCAP_ERRBUF_SIZE] = "";
  file_.reset(pcap_open_offline_with_tstamp_precision(path.c_str(), PCAP_TSTAMP_PRECISION_NANO, why));
  if (!file_) {
    const std::string text = why;
    throw CaptureError(text.compare(0, path.size(), path) == 0 ? text : path + ": " + text);
  }
  link_type_ = pcap_datalink(file_.get());
  if (LinkHeader(link_type_) == kUnknown) {
    const char* const name = pcap_datalink_val_to_name(link_type_);
    throw CaptureError(path + ": packets of link type " + (name != nullptr ? name : std::to_string(link_type_)) +
                       " are not supported");
  }
}

CaptureReader::~CaptureReader() = default;

bool CaptureReader::IsSerial() const { return link_type_ == kSerialLinkType; }

bool CaptureReader::Next(Captured& captured) {
  while (ready_.empty() && !ended_) {
    pcap_pkthdr* head = nullptr;
    const std::uint8_t* data = nullptr;
    const int result = pcap_next_ex(file_.get(), &head, &data);
    if (result != 1) {
      cut_short_ = result == PCAP_ERROR;
      ended_ = true;
      if (open_) End();
    } else {
      const auto ns = static_cast<std::uint64_t>(head->ts.tv_sec) * 1'000'000'000 +
                      static_cast<std::uint64_t>(head->ts.tv_usec);  // ns, as the file was opened
      now_ns_ = std::max(now_ns_, ns);
      if (head->caplen < head->len) ++truncated_;
      Packet({data, head->caplen});
    }
    std::reverse(ready_.begin(), ready_.end());
  }
  if (ready_.empty()) return false;
  captured = std::move(ready_.back());
  ready_.pop_back();
  return true;
}

void CaptureReader::Packet(Bytes packet) {
  if (IsSerial()) {
    if (packet.size < 2 || packet.data[0] > 1) return;
    if (!open_) {
      link_ = "serial:///dev/unknown";
      open_ = true;
      Put(Event::kOpened);
    }
    Put(static_cast<Event>(packet.data[0]), reinterpret_cast<const char*>(packet.data) + 1, packet.size - 1);
    return;
  }
  auto header = static_cast<std::size_t>(LinkHeader(link_type_));
  if (packet.size <= header) return;
  if (link_type_ == DLT_EN10MB) {
    while (Big16(packet.data + header - 2) == 0x8100 && packet.size > header + 4) header += 4;  // VLAN
    const std::uint16_t type = Big16(packet.data + header - 2);
    if (type != 0x0800 && type != 0x86DD) return;
  }
  const Bytes ip{packet.data + header, packet.size - header};
  if (ip.size >= kIpHeader && ip.data[0] >> 4 == 4) Ip4(ip);
  if (ip.size >= kIp6Header && ip.data[0] >> 4 == 6) Ip6(ip);
}

void CaptureReader::Ip4(Bytes packet) {
  const std::size_t size = std::size_t{4} * (packet.data[0] & 0x0F);
  std::size_t total = Big16(packet.data + 2);
  if (total == 0) total = packet.size;   // left to the network card
  total = std::min(total, packet.size);  // without what pads a short Ethernet packet
  if (size < kIpHeader || size > total) return;
  IpHeader header;
  header.source = header.target = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
  std::copy_n(packet.data + 12, 4, header.source.begin() + 12);
  std::copy_n(packet.data + 16, 4, header.target.begin() + 12);
  header.protocol = packet.data[9];
  header.id = Big16(packet.data + 4);
  header.offset = std::size_t{8} * (Big16(packet.data + 6) & 0x1FFF);
  header.more = (packet.data[6] & 0x20) != 0;
  Fragment(header, {packet.data + size, total - size});
}

void CaptureReader::Ip6(Bytes packet) {
  constexpr std::uint8_t kHopByHop = 0, kRouting = 43, kFragment = 44, kOptions = 60;
  IpHeader header;
  std::copy_n(packet.data + 8, 16, header.source.begin());
  std::copy_n(packet.data + 24, 16, header.target.begin());
  header.protocol = packet.data[6];
  std::size_t rest = packet.size - kIp6Header;
  if (const std::size_t size = Big16(packet.data + 4); size != 0) rest = std::min(rest, size);
  const std::uint8_t* at = packet.data + kIp6Header;
  for (;;) {
    const bool is_fragment = header.protocol == kFragment;
    if (!is_fragment && header.protocol != kHopByHop && header.protocol != kRouting && header.protocol != kOptions)
      break;
    const std::size_t size = rest < 8 || is_fragment ? 8 : std::size_t{8} * (at[1] + std::size_t{1});
    if (size > rest) return;
    if (is_fragment) {
      header.offset = Big16(at + 2) & 0xFFF8;
      header.more = (at[3] & 1) != 0;
      header.id = Big32(at + 4);
    }
    header.protocol = at[0];
    at += size;
    rest -= size;
    if (is_fragment) break;
  }
  Fragment(header, {at, rest});
}

void CaptureReader::Fragment(const IpHeader& header, Bytes payload) {
  if (header.offset == 0 && !header.more) return Payload(header, payload);
  if (fragments_.size() == kMaxFragmented && fragments_.count(header) == 0) fragments_.clear();  // what is lost is lost
  Fragments& fragments = fragments_[header];
  fragments.parts[header.offset].assign(payload.data, payload.data + payload.size);
  if (!header.more) fragments.size = header.offset + payload.size;
  std::vector<std::uint8_t> whole;
  for (const auto& [at, part] : fragments.parts) {
    if (at != whole.size()) return;
    whole.insert(whole.end(), part.begin(), part.end());
  }
  if (fragments.size == 0 || whole.size() != fragments.size) return;
  fragments_.erase(header);
  Payload(header, {whole.data(), whole.size()});
}

void CaptureReader::Payload(const IpHeader& header, Bytes payload) {
  if (header.protocol != kTcp && header.protocol != kUdp) return;
  if (payload.size < (header.protocol == kTcp ? kTcpHeader : kUdpHeader)) return;
  const Address from{header.source, Big16(payload.data)}, to{header.target, Big16(payload.data + 2)};
  if (from.second != port_ && to.second != port_) return;
  const bool to_controller = IsToController(from, to, header.protocol, payload);
  const auto take = header.protocol == kTcp ? &CaptureReader::Segment : &CaptureReader::Datagram;
  (this->*take)(to_controller ? from : to, to_controller ? to : from, to_controller, payload);
}

bool CaptureReader::IsToController(const Address& from, const Address& to, std::uint8_t protocol, Bytes payload) const {
  if (from.second != to.second) return to.second == port_;
  if (!link_.empty()) return to == controller_;
  if (protocol == kTcp && (payload.data[13] & kSyn) != 0) return (payload.data[13] & kAck) == 0;
  const std::size_t header = protocol == kTcp ? std::size_t{4} * (payload.data[12] >> 4) : kUdpHeader;
  const std::size_t size = payload.size - std::min(header, payload.size);
  const bool is_status = size > 24 && (size - 24) % 79 == 0;  // bytes of a frame, whatever the joints are
  const bool is_command = size > 13 && (size - 13) % 18 == 0;
  return is_command || !is_status;
}

void CaptureReader::Datagram(const Address& host, const Address& controller, bool to_controller, Bytes payload) {
  if (!Choose("udp", host, controller, to_controller)) return;
  const std::size_t size = std::min<std::size_t>(Big16(payload.data + 4), payload.size);
  Put(to_controller ? Event::kToController : Event::kToHost, reinterpret_cast<const char*>(payload.data) + kUdpHeader,
      std::max(size, kUdpHeader) - kUdpHeader);
}

void CaptureReader::Segment(const Address& host, const Address& controller, bool to_controller, Bytes segment) {
  const Event event = to_controller ? Event::kToController : Event::kToHost;
  const std::size_t header = std::size_t{4} * (segment.data[12] >> 4);
  if (header < kTcpHeader || header > segment.size) return;
  const std::uint8_t flags = segment.data[13];
  const bool begins = to_controller && (flags & (kSyn | kAck)) == kSyn;
  if (!open_ && !begins && (segment.size == header || host == host_)) return;  // what is left of one that is over
  if (!Choose("tcp", host, controller, begins)) return;
  Stream& stream = streams_[static_cast<std::size_t>(event)];
  const std::uint32_t sequence = Big32(segment.data + 4) + ((flags & kSyn) != 0 ? 1 : 0);
  if ((flags & kSyn) != 0 || !stream.known) {
    stream.known = true;
    stream.next = sequence;
  }
  Take(event, sequence, {segment.data + header, segment.size - header});
  if ((flags & kFin) != 0) stream.ended = true;
  if ((flags & kRst) != 0 || (streams_[0].ended && streams_[1].ended)) End();
}

void CaptureReader::Take(Event event, std::uint32_t sequence, Bytes bytes) {
  Stream& stream = streams_[static_cast<std::size_t>(event)];
  if (bytes.size == 0 || Ahead(sequence + static_cast<std::uint32_t>(bytes.size), stream.next) <= 0)
    return;  // repeated
  std::vector<char>& early = stream.early[sequence];
  if (early.size() < bytes.size) early.assign(bytes.data, bytes.data + bytes.size);
  Deliver(event);
  if (stream.early.size() > kMaxEarly) SkipGap(event);
}

void CaptureReader::Deliver(Event event) {
  Stream& stream = streams_[static_cast<std::size_t>(event)];
  for (auto it = stream.early.begin(); it != stream.early.end();) {
    const std::int32_t ahead = Ahead(it->first, stream.next);
    if (ahead > 0) {
      ++it;
      continue;
    }
    const auto known = static_cast<std::size_t>(-std::int64_t{ahead});
    if (known < it->second.size()) {
      Put(event, it->second.data() + known, it->second.size() - known);
      stream.next += static_cast<std::uint32_t>(it->second.size() - known);
    }
    stream.early.erase(it);
    it = stream.early.begin();  // numbers wrap round, so the next one may stand anywhere
  }
}

void CaptureReader::SkipGap(Event event) {
  Stream& stream = streams_[static_cast<std::size_t>(event)];
  while (!stream.early.empty()) {
    const auto next = std::min_element(stream.early.begin(), stream.early.end(), [&](const auto& a, const auto& b) {
      return Ahead(a.first, stream.next) < Ahead(b.first, stream.next);
    });
    missing_ += static_cast<std::uint32_t>(Ahead(next->first, stream.next));
    stream.next = next->first;
    Deliver(event);
  }
}

bool CaptureReader::Choose(const char* scheme, const Address& host, const Address& controller, bool begins) {
  const std::string link =
      std::string(scheme) + "://" + AddressText(controller.first) + ":" + std::to_string(controller.second);
  const bool is_same = open_ && host == host_ && link == link_;
  const bool is_new_connection = begins && link[0] == 't';
  if (is_same && !is_new_connection) return true;
  if ((open_ && !begins) || (!link_.empty() && link != link_)) {
    ++foreign_;
    return false;
  }
  if (open_) End();
  link_ = link;
  host_ = host;
  controller_ = controller;
  streams_ = {};
  open_ = true;
  Put(Event::kOpened);
  return true;
}

void CaptureReader::End() {
  SkipGap(Event::kToController);
  SkipGap(Event::kToHost);
  open_ = false;
  Put(Event::kClosed);
}

void CaptureReader::Put(Event event, const char* bytes, std::size_t size) {
  if (size == 0 && (event == Event::kToController || event == Event::kToHost)) return;
  ready_.push_back({event, now_ns_, {bytes, bytes + size}});
}

}  // namespace velta::recording
