// SPDX-License-Identifier: MIT
#include <pybind11/stl.h>

#include "MasterControllerClient.h"
#include "MasterControllerClientMock.h"
#include "command.h"
#include "notes.h"
#include "support.h"
#include "velta_statistics.h"

namespace velta::python {

namespace {

/// The client says which calls may overlap; in Python none does.
struct Guard {
  unsigned process = ProcessNumber();
  std::mutex mutex;  ///< held during a call
  Signal freed;
};
/// One call; the next may follow.
struct Turn {
  Guard& guard;
  ~Turn() {
    guard.mutex.unlock();
    guard.freed.Raise();
  }
};
struct GuardedClient : MasterControllerClient, Guard {
  using MasterControllerClient::MasterControllerClient;
};
struct GuardedMock : MasterControllerClientMock, Guard {
  using MasterControllerClientMock::MasterControllerClientMock;
};

struct FreeClient {
  void operator()(MasterControllerClient* client) const {
    if (auto* const mock = dynamic_cast<GuardedMock*>(client)) return FreeWithoutGil()(mock);
    FreeWithoutGil()(static_cast<GuardedClient*>(client));
  }
};

/// Runs job without the GIL, one at a time per client; then logs what the library has logged. Ctrl-C ends the wait for
/// another thread's call.
template <typename Job>
auto Run(const MasterControllerClient& client, Job job) {
  constexpr bool kIsVoid = std::is_void_v<decltype(job())>;
  auto& guard = const_cast<Guard&>(dynamic_cast<const Guard&>(client));
  CheckProcess(guard.process);
  std::conditional_t<kIsVoid, bool, std::optional<decltype(job())>> result{};
  const auto try_job = [&](std::chrono::nanoseconds slice) {
    const std::uint64_t seen = guard.freed.Value();
    if (!guard.mutex.try_lock()) {
      guard.freed.Wait(seen, slice);
      return false;
    }
    const Turn turn{guard};
    if constexpr (kIsVoid) {
      job();
    } else {
      result.emplace(job());
    }
    return true;
  };
  WaitInSlices(std::nullopt, try_job, [] { return true; });
  DeliverNotes();
  if constexpr (!kIsVoid) return std::move(*result);
}

template <typename C, typename R, typename... Args>
auto Call(R (C::*member)(Args...)) {
  return [member](C& c, std::decay_t<Args>... args) { return Run(c, [&] { return (c.*member)(std::move(args)...); }); };
}

template <typename C, typename R, typename... Args>
auto Call(R (C::*member)(Args...) const) {
  return [member](const C& c, std::decay_t<Args>... args) { return Run(c, [&] { return (c.*member)(args...); }); };
}

/// Runs job with a copy of the packet, which other threads may change meanwhile, and gives the packet what the client
/// has noted in the copy.
template <typename Job>
auto RunWith(MasterControllerClient& client, SendPacket& packet, Job job) {
  SendPacket copy = packet;
  struct Note {
    SendPacket& to;
    const SendPacket& from;
    ~Note() {
      to.header = from.header;
      to.confirmReceived = from.confirmReceived;
      to.isUnique = from.isUnique;
      to.uniqueKey = from.uniqueKey;
    }
  } const note{packet, copy};
  return Run(client, [&] { return job(copy); });
}

/// One attempt after the other, so that Ctrl-C ends what may take 5 s each.
bool ReConnect(MasterControllerClient& client, int try_num) {
  const auto attempt = [&](int count) { return Run(client, [&] { return client.ReConnect(count); }); };
  for (int left = try_num; left > 1; --left) {
    if (attempt(1)) return true;
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
  }
  return attempt(std::min(try_num, 1));
}

using Client = MasterControllerClient;
using Mock = MasterControllerClientMock;

using ClientClass = py::class_<Client, std::unique_ptr<Client, FreeClient>>;

void AddLinkAndStatuses(ClientClass& client) {
  client.def("receive_status", Call(&Client::ReceiveStatus), "One receive step; returns how many packets were parsed.")
      .def("push_recv_buffer", Call(&Client::PushRecvBuffer), py::arg("packet"),
           "Buffers a status packet as if it had been received; at most 4096 are kept.")
      .def("init_as_tcp_client", Call(&Client::InitAsTcpClient), py::arg("ip"), py::arg("port"),
           "Opens the link, waiting up to 5 s; ip is a dotted quad. Returns whether it is open.")
      .def("init_as_udp_client", Call(&Client::InitAsUdpClient), py::arg("ip"), py::arg("port"),
           "Opens the link; ip is a dotted quad. Returns whether it is open.")
      .def("init_as_serial_client", Call(&Client::InitAsSerialClient), py::arg("device"), py::arg("baud_rate"),
           "Opens the link; baud_rate in bit/s. Returns whether it is open.")
      .def("connect", Call(&Client::Connect), "Opens the link that was chosen; returns whether it is open.")
      .def("disconnect", Call(&Client::Disconnect), "Closes the link.")
      .def("re_connect", &ReConnect, py::arg("try_num"), "Closes the link and opens it anew; up to try_num attempts.")
      .def("is_init", Call(&Client::IsInit), "whether a link was chosen")
      .def("is_connected", Call(&Client::IsConnected), "whether the link was open at the last step")
      .def("get_version", Call(&Client::GetVersion), "the library's version")
      .def("get_cur_state_packet", Call(&Client::GetCurStatePacket),
           "all buffered packets, oldest first; empties the buffer")
      .def("get_cur_state_json", Call(&Client::GetCurStateJson), "the same as JSON documents")
      .def("get_last_recv_packet", Call(&Client::GetLastRecvPacket), "the packet that was parsed last")
      .def(
          "get_statistics",
          [](const Client& c) {
            return py::module_::import("json").attr("loads")(Run(c, [&] { return ToJson(c.GetStatistics()); }));
          },
          "what was received, sent and dropped since the construction, as a dict")
      .def("flush_recv_buffer", Call(&Client::FlushRecvBuffer), "Drops the buffered status packets.")
      .def("get_recv_buffer_size", Call(&Client::GetRecvBufferSize), "buffered status packets");
}

void AddSending(ClientClass& client) {
  client.def("send_packet_in_buffer", Call(&Client::SendPacketInBuffer), "One send step; at most one packet leaves.")
      .def(
          "push_send_queue",
          [](Client& c, SendPacket& packet, bool confirm) {
            RunWith(c, packet, [&](SendPacket& copy) { c.PushSendQueue(copy, confirm); });
          },
          py::arg("packet"), py::arg("confirm_received"), "Queues a copy of the packet, to be sent in order.")
      .def(
          "push_front_send_queue",
          [](Client& c, SendPacket& packet, bool confirm) {
            RunWith(c, packet, [&](SendPacket& copy) { c.PushFrontSendQueue(copy, confirm); });
          },
          py::arg("packet"), py::arg("confirm_received"), "Queues a copy of the packet, to be sent next.")
      .def("push_send_queue_json", Call(&Client::PushSendQueueJson), py::arg("json"), py::arg("confirm_received"),
           "Queues one command document; False, with nothing queued, for any other text.")
      .def("pop_send_queue", Call(&Client::PopSendQueue), "Takes the next packet out of the queue.")
      .def("flush_send_buffer", Call(&Client::FlushSendBuffer), "Empties the queue.")
      .def("get_send_buffer_size", Call(&Client::GetSendBufferSize), "packets in the queue")
      .def(
          "insert_unique_send_map",
          [](Client& c, SendPacket& packet) {
            RunWith(c, packet, [&](SendPacket& copy) { c.InsertUniqueSendMap(copy); });
          },
          py::arg("packet"), "Files a copy under the packet's key; the newest is sent when the queue is empty.")
      .def("create_independent_send_packet_buffer", Call(&Client::CreateIndependentSendPacketBuffer),
           py::arg("buffer_name"), "Adds an independent source of packets.")
      .def(
          "push_back_independent_send_buffer",
          [](Client& c, SendPacket& packet, const std::string& name, bool confirm, bool is_unique,
             const std::string& key) {
            RunWith(c, packet,
                    [&](SendPacket& copy) { c.PushBackIndependentSendBuffer(copy, name, confirm, is_unique, key); });
          },
          py::arg("packet"), py::arg("buffer_name"), py::arg("confirm_received"), py::arg("is_unique"),
          py::arg("unique_key"), "To an unknown name this only creates the buffer.")
      .def("merge_independent_send_packet_buffer", Call(&Client::MergeIndependentSendPacketBuffer),
           "Merges what the sources have into as few packets as possible, and queues these; every send step does.")
      .def(
          "send_once",
          [](Client& c, SendPacket& packet, bool keep) {
            return RunWith(c, packet, [&](SendPacket& copy) { return c.SendOnce(copy, keep); });
          },
          py::arg("packet"), py::arg("keep_timestamp"),
          "Sends the packet at once; returns whether it was written. Its stamp is raised where the last packet had the "
          "same, unless it is to be kept.");
}

void AddReal(py::module_& m) {
  ClientClass client(
      m, "MasterControllerClient",
      "The bare client of an arm: passive, driven by receive_status() and send_packet_in_buffer() in a loop of yours. "
      "velta.connect() gives a session that runs the loop itself.");
  client.def(
      py::init([](int joint_num) { return static_cast<Client*>(new GuardedClient(CheckJointCount(joint_num))); }),
      py::arg("joint_num"));
  AddLinkAndStatuses(client);
  AddSending(client);
}

void AddSimulated(py::module_& m) {
  py::class_<Mock, Client, std::unique_ptr<Mock, FreeClient>>(
      m, "MasterControllerClientMock", "A simulated controller in place of the client: same calls, no link.")
      .def(py::init([](int joint_num, int cycle_ms) {
             if (cycle_ms < 1) BadArgument("a cycle takes at least 1 ms");
             return static_cast<Mock*>(new GuardedMock(CheckJointCount(joint_num), cycle_ms));
           }),
           py::arg("joint_num"), py::arg("cycle_ms") = 1)
      .def("set_recv_buffer", Call(&Mock::SetRecvBuffer), py::arg("packet"),
           "Takes a packet in as if the controller had sent it.")
      .def("set_joint_type", Call(py::overload_cast<int, unsigned char>(&Mock::SetJointType)), py::arg("joint"),
           py::arg("type"))
      .def("set_joint_type", Call(py::overload_cast<int, const std::string&>(&Mock::SetJointType)), py::arg("joint"),
           py::arg("type"), "type: a number, or revolute, gripper_prismatic or gripper_revolute")
      .def("parse_send_packet", Call(&Mock::ParseSendPacket), py::arg("packet"),
           "Interprets a command as if it had been sent.");
}

}  // namespace

void AddClient(py::module_& m) {
  AddReal(m);
  AddSimulated(m);
}

}  // namespace velta::python
