// SPDX-License-Identifier: MIT
#include <pybind11/stl.h>

#include <deque>
#include <map>
#include <unordered_map>

#include "MasterControllerClient.h"
#include "PacketParser.h"
#include "RecvPacket.h"
#include "command.h"
#include "send_packet_buffer.h"
#include "send_packet_merger.h"
#include "support.h"
#include "unique_send_packet_map.h"
#include "version.h"

namespace velta::python {

namespace {

std::vector<char> Bytes(const py::bytes& bytes) {
  const std::string_view view = bytes;
  return {view.begin(), view.end()};
}

py::bytes ToBytes(const std::vector<char>& bytes) { return {bytes.data(), bytes.size()}; }

void AddEnums(py::module_& m) {
#define VELTA_ORDER(name) {#name, static_cast<int>(ePacketOrder::name)}
  AddEnum(m, "IntEnum", "ePacketOrder", "Command codes per joint; 0 is an idle joint.",
          {VELTA_ORDER(RefCurrent),
           VELTA_ORDER(RefPosition),
           VELTA_ORDER(RefVelocity),
           VELTA_ORDER(RefPositionVelocity),
           VELTA_ORDER(RefPositionVelocityAcceleration),
           VELTA_ORDER(Dynamics),
           VELTA_ORDER(TrajectoryViaClear),
           VELTA_ORDER(TrajectoryControlStart),
           VELTA_ORDER(TrajectoryControlCancel),
           VELTA_ORDER(TrajectoryPT_LinSpline1),
           VELTA_ORDER(TrajectoryPT_Trapezoidal1),
           VELTA_ORDER(TrajectoryPT_DoubleS1),
           VELTA_ORDER(TrajectoryPVT1),
           VELTA_ORDER(TrajectoryPVAT1),
           VELTA_ORDER(TrajectoryPT_LinSpline0),
           VELTA_ORDER(TrajectoryPT_Trapezoidal0),
           VELTA_ORDER(TrajectoryPT_DoubleS0),
           VELTA_ORDER(TrajectoryPVT0),
           VELTA_ORDER(TrajectoryPVAT0),
           VELTA_ORDER(TrajectoryP_DoubleS),
           VELTA_ORDER(Reset),
           VELTA_ORDER(ServoOff),
           VELTA_ORDER(ServoOn),
           VELTA_ORDER(ControlMode),
           VELTA_ORDER(GetSlaveEffortOffset),
           VELTA_ORDER(ParamKp),
           VELTA_ORDER(ParamKi),
           VELTA_ORDER(ParamKd),
           VELTA_ORDER(ParamWindupLimit),
           VELTA_ORDER(ParamVelocityOverride),
           VELTA_ORDER(ParamVelocityMax),
           VELTA_ORDER(ParamAccelerationMax),
           VELTA_ORDER(ParamJerkMax),
           VELTA_ORDER(ArbitraryParam),
           VELTA_ORDER(BrakeOff),
           VELTA_ORDER(BrakeOn),
           VELTA_ORDER(MoveHomePosition),
           VELTA_ORDER(GeneralRegisterType),
           VELTA_ORDER(FaultInjection)});
#undef VELTA_ORDER
  AddEnum(m, "IntEnum", "ePacketArmOrder", "Command codes of the whole arm; 0 is none.",
          {{"Payload", static_cast<int>(ePacketArmOrder::Payload)},
           {"PayloadInertiaTensorDiagonal", static_cast<int>(ePacketArmOrder::PayloadInertiaTensorDiagonal)},
           {"PayloadInertiaTensorTriangle", static_cast<int>(ePacketArmOrder::PayloadInertiaTensorTriangle)},
           {"GripperMaxEffort", static_cast<int>(ePacketArmOrder::GripperMaxEffort)}});
}

/// The setters that stand in no table.
void AddBareSetters(py::class_<SendPacket>& packet) {
  packet.def("is_valid_id", &SendPacket::IsValidID, py::arg("id"))
      .def_static("is_valid_value_num", &SendPacket::IsValidValueNum, py::arg("n"))
      .def(
          "set_joint_order",
          [](SendPacket& p, int id, int order) { p.SetJointOrder(id, static_cast<ePacketOrder>(order)); },
          py::arg("id"), py::arg("order"), "Sets the code of a joint, or of each listed joint; its values stay.")
      .def(
          "set_joint_order",
          [](SendPacket& p, const std::vector<int>& ids, int order) {
            p.SetJointOrder(ids, static_cast<ePacketOrder>(order));
          },
          py::arg("id"), py::arg("order"))
      .def("set_value", py::overload_cast<int, int, float>(&SendPacket::SetValue), py::arg("id"), py::arg("n"),
           py::arg("v"), "Writes v into value n (1 to 4) of a joint, or of each listed joint.")
      .def("set_value", py::overload_cast<const std::vector<int>&, int, float>(&SendPacket::SetValue), py::arg("id"),
           py::arg("n"), py::arg("v"))
      .def("parse_id_string", &SendPacket::ParseIDString, py::arg("ids"), "the indices that an ID string names")
      .def("set_common_command",
           py::overload_cast<const std::string&, int, float, float, float, float>(&SendPacket::SetCommonCommand),
           py::arg("ids"), py::arg("order"), py::arg("value1"), py::arg("value2"), py::arg("value3"), py::arg("value4"),
           "Writes code and all four values of every named joint.")
      .def(
          "get_char_vector", [](const SendPacket& p) { return ToBytes(p.GetCharVector()); },
          "the frame, 18 n + 13 bytes");
}

void AddCommandPackets(py::module_& m) {
  py::class_<SendPacket> packet(m, "SendPacket",
                                "One command frame: header and one record per joint, with the library's own setters, "
                                "which skip what names no joint. velta.Command refuses it instead.\n\n"
                                "Time stamps are ns since the Unix epoch; values in the controller's units.");
  packet.def(py::init([](int joint_num) { return SendPacket(CheckJointCount(joint_num)); }), py::arg("joint_num"))
      .def("__copy__", [](const SendPacket& p) { return p; })
      .def(
          "__deepcopy__", [](const SendPacket& p, const py::dict&) { return p; }, py::arg("memo"))
      .def("__bytes__", [](const SendPacket& p) { return ToBytes(p.GetCharVector()); })
      .def("__repr__",
           [](const py::object& self) {
             const auto& p = self.cast<const SendPacket&>();
             return py::str("<velta.{} of {} joints, stamp {}>")
                 .format(py::type::of(self).attr("__name__"), p.jointNum, p.GetTimeStamp());
           })
      .def_property_readonly(
          "joints",
          [](const py::object& self) {
            return ViewRecords(CommandRecord(), self.cast<const SendPacket&>().joints, self);
          },
          "read-only structured array (n,) over the packet: id, order, value1 to value4")
      .def_readonly("joint_num", &SendPacket::jointNum, "joints of the arm (n)")
      .def_property_readonly(
          "arm_order", [](const SendPacket& p) { return +p.header.armOrder; }, "code of the arm command; 0 is none")
      .def("get_data_size", &SendPacket::GetDataSize, "18 n bytes")
      .def("get_packet_size", &SendPacket::GetPacketSize, "18 n + 13 bytes")
      .def("get_confirm_received", &SendPacket::GetConfirmReceived)
      .def("set_confirm_received", &SendPacket::SetConfirmReceived, py::arg("confirm"))
      .def("is_unique", &SendPacket::IsUnique)
      .def("set_is_unique", &SendPacket::SetIsUnique, py::arg("unique"))
      .def("get_unique_key", &SendPacket::GetUniqueKey)
      .def("set_unique_key", &SendPacket::SetUniqueKey, py::arg("key"))
      .def("get_time_stamp", &SendPacket::GetTimeStamp, "ns since the Unix epoch")
      .def("set_time_stamp", &SendPacket::SetTimeStamp, py::arg("time_stamp"))
      .def("set_arm_order", py::overload_cast<int>(&SendPacket::SetArmOrder), py::arg("order"), "low 8 bits");
  AddBareSetters(packet);

  py::class_<Command, SendPacket> command(
      m, "Command",
      "Command(joints): one command frame for an arm of so many joints, idle at first.\n\n"
      "Every setter returns the command, so that calls can be chained. `joints` is \"all\", indices such as \"0/2\", "
      "an "
      "index, or a sequence of indices; every value is a number in the controller's units, or a sequence with one per "
      "joint. A joint that does not exist, no joint at all, a sequence of the wrong length, NaN and infinity raise "
      "ValueError, and nothing is set. bytes(command) is the frame, 18 n + 13 bytes.");
  command.def(py::init([](int joints) { return Command(CheckJointCount(joints)); }), py::arg("joints"))
      .def("__copy__", [](const Command& c) { return c; })
      .def(
          "__deepcopy__", [](const Command& c, const py::dict&) { return c; }, py::arg("memo"));
  AddSetters(packet, command);
}

void AddStatusPackets(py::module_& m) {
  py::class_<RecvPacket> packet(
      m, "RecvPacket",
      "One status frame: header and one record per joint. The fields are read-only views over "
      "the packet's memory, of shape (n,); `joints` has them all.");
  packet
      .def(py::init([](int joint_num) { return RecvPacket(CheckJointCount(joint_num)); }), py::arg("joint_num"),
           "All bytes are 0.")
      .def("__copy__", [](const RecvPacket& p) { return p; })
      .def(
          "__deepcopy__", [](const RecvPacket& p, const py::dict&) { return p; }, py::arg("memo"))
      .def(
          "parse", [](RecvPacket& p, const py::bytes& bytes) { return p.Parse(Bytes(bytes)); }, py::arg("bytes"),
          "Fills the packet from one whole frame, 79 n + 24 bytes; False for a wrong size or CRC.")
      .def("get_data_size", &RecvPacket::GetDataSize, "79 n bytes")
      .def("get_packet_size", &RecvPacket::GetPacketSize, "79 n + 24 bytes")
      .def_readonly("joint_num", &RecvPacket::jointNum, "joints of the arm (n)")
      .def_property_readonly(
          "timestamp", [](const RecvPacket& p) { return +p.header.timestamp; }, "the controller's stamp, as sent")
      .def_property_readonly(
          "host_timestamp", [](const RecvPacket& p) { return +p.header.hostTimestamp; },
          "stamp of the command that the controller accepted last, ns")
      .def_property_readonly("duration", [](const RecvPacket& p) { return +p.header.duration; })
      .def_property_readonly(
          "joints",
          [](const py::object& self) {
            return ViewRecords(StatusRecord(), self.cast<const RecvPacket&>().joints, self);
          },
          "read-only structured array (n,) over the packet, with all fields");
  AddFieldViews(packet, [](const RecvPacket& p) -> const RecvPacket& { return p; });

  py::class_<PacketParser>(m, "PacketParser",
                           "Cuts whole status frames out of bytes that arrive in pieces of any size.")
      .def(py::init([](int joint_num) { return new PacketParser(CheckJointCount(joint_num)); }), py::arg("joint_num"))
      .def(
          "push", [](PacketParser& p, const py::bytes& bytes) { return p.Push(Bytes(bytes)); }, py::arg("bytes"),
          "Appends the bytes; returns 0.")
      .def("search_header", &PacketParser::SearchHeader, "Drops bytes before a start mark.")
      .def("parse", &PacketParser::Parse, "all complete frames with a right CRC, oldest first")
      .def_property_readonly(
          "buffer",
          [](const PacketParser& p) {
            return ToBytes({p.buffer.begin(), p.buffer.end()});
          },
          "bytes that were not consumed yet");
}

void AddCoalescing(py::module_& m) {
  using Packets = std::vector<SendPacket>;
  using Unique = std::unordered_map<std::string, SendPacket>;

  py::class_<SendPacketBuffer, std::shared_ptr<SendPacketBuffer>>(
      m, "SendPacketBuffer", "The commands of one source: ordinary ones in order, of each unique key the newest.")
      .def(py::init<>())
      .def(
          "push_back",
          [](SendPacketBuffer& b, const SendPacket& packet) { WithoutGil([&b, packet] { b.pushBack(packet); }); },
          py::arg("packet"))
      .def(
          "pop_all_packets",
          [](SendPacketBuffer& b) {
            return WithoutGil([&b] {
              std::pair<Unique, Packets> all;
              b.popAllPackets(all.first, all.second);
              return all;
            });
          },
          "Empties the buffer; returns (unique packets by key, ordinary packets).")
      .def("reset", [](SendPacketBuffer& b) { WithoutGil([&b] { b.reset(); }); })
      .def("empty", [](const SendPacketBuffer& b) { return WithoutGil([&b] { return b.empty(); }); });

  py::class_<SendPacketMerger>(m, "SendPacketMerger", "Folds the commands of several sources into few packets.")
      .def_static(
          "get_merged_packet",
          [](std::vector<std::shared_ptr<SendPacketBuffer>> buffers, int joint_num) {
            CheckJointCount(joint_num);
            return WithoutGil([&] { return SendPacketMerger::getMergedPacket(buffers, joint_num); });
          },
          py::arg("buffers"), py::arg("joint_num"), "Empties the buffers; returns what is to be sent, in order.")
      .def_static(
          "merge_not_unique_packet",
          [](std::vector<Packets> lists, int joint_num) {
            return SendPacketMerger::mergeNotUniquePacket(lists, CheckJointCount(joint_num));
          },
          py::arg("packet_lists"), py::arg("joint_num"))
      .def_static(
          "merge_unique_packet", [](std::vector<Unique> maps) { return SendPacketMerger::mergeUniquePacket(maps); },
          py::arg("packet_maps"))
      .def_static("merge_packet", &SendPacketMerger::mergePacket, py::arg("dst"), py::arg("src"),
                  "Folds src's commanded joints into dst; False, with dst untouched, where they collide.");

  py::class_<UniqueSendPacketMap>(m, "UniqueSendPacketMap", "Keeps the newest command per key.")
      .def(py::init<>())
      .def(
          "insert",
          [](UniqueSendPacketMap& map, const std::string& key, const SendPacket& packet) {
            WithoutGil([&map, &key, packet] { map.Insert(key, packet); });
          },
          py::arg("key"), py::arg("packet"))
      .def(
          "get_send_packet",
          [](UniqueSendPacketMap& map, const std::string& key) {
            return WithoutGil([&] { return map.GetSendPacket(key); });
          },
          py::arg("key"), "the packet under key, marked as sent; one without joints for an unknown key")
      .def("get_not_sent_keys",
           [](UniqueSendPacketMap& map) { return WithoutGil([&map] { return map.GetNotSentKeys(); }); });
}

}  // namespace

void AddPackets(py::module_& m) {
  AddEnums(m);
  AddCommandPackets(m);
  AddStatusPackets(m);
  AddCoalescing(m);
  m.def(
      "calc_crc16",
      [](const py::bytes& bytes) {
        const std::string_view view = bytes;
        if (view.size() > 0xFFFF) BadArgument("the CRC covers at most 65,535 bytes");
        return CalcCrc16(reinterpret_cast<const unsigned char*>(view.data()), static_cast<unsigned short>(view.size()));
      },
      py::arg("data"), "the frames' CRC-16 (CRC-16/USB) over 0 to 65,535 bytes");
  m.def("get_now_time_stamp", &GetNowTimeStamp, "the real-time clock, ns since the Unix epoch");
  m.def(
      "get_version", [] { return VELTA_VERSION::major + "." + VELTA_VERSION::minor + "." + VELTA_VERSION::revision; },
      "the library's version");
  m.def(
      "state_to_json",
      [](const RecvPacket& packet) {
        return WithoutGil([copy = packet] {
          MasterControllerClient client(copy.jointNum);
          client.PushRecvBuffer(copy);
          return client.GetCurStateJson().at(0);
        });
      },
      py::arg("packet"), "one status packet as the library's JSON document; every number is a string");
  m.def(
      "command_from_json",
      [](const std::string& text, int joints) {
        CheckJointCount(joints);
        const auto packet = WithoutGil([&]() -> std::optional<Command> {
          MasterControllerClient client(joints);
          if (!client.PushSendQueueJson(text, false)) return std::nullopt;
          return Command(client.PopSendQueue());
        });
        if (!packet) BadArgument("the text is not a command document");
        return *packet;
      },
      py::arg("text"), py::arg("joints"),
      "the command of a JSON document; ValueError for any other text. Joints that the arm does not have are skipped.");
}

}  // namespace velta::python
