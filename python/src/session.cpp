// SPDX-License-Identifier: MIT
#include <pybind11/stl.h>
#include <unistd.h>

#include <limits>
#include <stdexcept>

#include "command.h"
#include "feed.h"
#include "states.h"
#include "support.h"
#include "velta_log.h"
#include "velta_session.h"

namespace velta::python {

namespace {

constexpr auto kLong = std::chrono::hours(1);

/// The next item of a feed's ring from `position` on, waited for without the GIL.
/// @param timeout  none: for ever
/// @return null when the time is over; throws StopIteration once the feed is closed and read
template <typename Item>
std::shared_ptr<const Item> Next(Feed& feed, Ring<Item>& ring, std::uint64_t& position, std::uint64_t& left_out,
                                 std::optional<std::chrono::nanoseconds> timeout) {
  std::shared_ptr<const Item> item;
  const auto look = [&] {
    item = ring.From(position);
    return item != nullptr || feed.is_closed;
  };
  std::uint64_t seen = feed.changed.Value();
  if (!look()) {
    WaitInSlices(
        timeout, [&](std::chrono::nanoseconds slice) { return feed.changed.Wait(seen, slice); },
        [&] {
          seen = feed.changed.Value();
          return look();
        });
  }
  if (item == nullptr && feed.is_closed) throw py::stop_iteration();
  if (item != nullptr) {
    left_out += item->number - position;
    position = item->number + 1;
  }
  return item;
}

struct State {
  std::shared_ptr<const StampedStatus> status;
};

py::object ToPython(const Event& event) {
  static const py::object& make = *new py::object(py::module_::import("velta._event").attr("Event"));
  static const py::object& kinds = *new py::object(py::module_::import("velta._velta").attr("EventKind"));
  const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(event.time.time_since_epoch()).count();
  return make(kinds(static_cast<int>(event.kind)), ns, event.value, event.text);
}

py::object ToPython(Outcome outcome) {
  static const py::object& outcomes = *new py::object(py::module_::import("velta._velta").attr("Outcome"));
  return outcomes(static_cast<int>(outcome));
}

/// " within 0.5 s"
std::string Within(std::chrono::duration<double> timeout) {
  return " within " + py::repr(py::float_(timeout.count())).cast<std::string>() + " s";
}

/// One reader of a feed, with a position of its own.
class Reader {
 public:
  /// @param session  kept alive while the reader lives; None for the session's own threads
  Reader(std::shared_ptr<Feed> feed, py::object session, std::optional<std::chrono::nanoseconds> timeout)
      : feed_(std::move(feed)), session_(std::move(session)), timeout_(timeout) {}
  std::uint64_t LeftOut() const { return left_out_; }

 protected:
  void CheckAlive() const { CheckProcess(process_); }
  [[noreturn]] void TimedOut(const char* what) const { Raise("TimeoutError", what + Within(*timeout_)); }

  std::shared_ptr<Feed> feed_;
  py::object session_;
  std::optional<std::chrono::nanoseconds> timeout_;
  std::uint64_t position_ = 0;
  std::uint64_t left_out_ = 0;
  unsigned process_ = ProcessNumber();
};

struct StateIterator : Reader {
  StateIterator(std::shared_ptr<Feed> feed, py::object session, std::optional<std::chrono::nanoseconds> timeout)
      : Reader(std::move(feed), std::move(session), timeout) {
    position_ = feed_->statuses.End();
  }
  State Next() {
    CheckAlive();
    auto status = python::Next(*feed_, feed_->statuses, position_, left_out_, timeout_);
    if (status == nullptr) TimedOut("no status came");
    return {std::move(status)};
  }
};

struct EventIterator : Reader {
  EventIterator(std::shared_ptr<Feed> feed, py::object session, std::optional<std::chrono::nanoseconds> timeout)
      : Reader(std::move(feed), std::move(session), timeout) {
    position_ = feed_->events.End();
  }
  py::object Next() { return NextWithin(timeout_); }

  /// Without waiting: None when there is none.
  py::object Try() { return NextWithin(std::chrono::nanoseconds(0), true); }

  /// The token of the note that the next event leaves.
  std::uint64_t Watch() {
    feed_->is_watched = true;
    return feed_->token;
  }

 private:
  py::object NextWithin(std::optional<std::chrono::nanoseconds> timeout, bool may_fail = false) {
    CheckAlive();
    if (pending_) return std::exchange(pending_, py::object());
    const std::uint64_t before = left_out_;
    const auto item = python::Next(*feed_, feed_->events, position_, left_out_, timeout);
    if (item == nullptr && may_fail) return py::none();
    if (item == nullptr) TimedOut("no event came");
    if (left_out_ == before) return ToPython(item->event);
    pending_ = ToPython(item->event);
    return ToPython(Event{Event::Kind::kLeftOut, item->event.time, static_cast<double>(left_out_ - before),
                          "the reader was too slow"});
  }

  py::object pending_;
};

struct PyTicket {
  Ticket ticket;
  bool confirm = false;
  unsigned process = ProcessNumber();
  std::uint64_t token = 0;

  bool Wait(py::handle timeout_seconds) {
    CheckProcess(process);
    const auto timeout = Timeout(timeout_seconds);
    velta::Outcome outcome = ticket.Outcome();
    if (outcome == velta::Outcome::kPending) {
      WaitInSlices(
          timeout, [&](std::chrono::nanoseconds slice) { return ticket.Wait(slice) != velta::Outcome::kPending; },
          [&] { return ticket.Outcome() != velta::Outcome::kPending; });
      outcome = ticket.Outcome();
    }
    switch (outcome) {
      case velta::Outcome::kPending:
        Raise("TimeoutError",
              std::string("the command was not ") + (confirm ? "confirmed" : "sent") + Within(*timeout));
      case velta::Outcome::kGaveUp:
        Raise("TimeoutError", "the controller never confirmed the command, which was sent five times");
      case velta::Outcome::kDiscarded:
        Raise("DiscardedError", ToString(ticket.Reason()));
      default:
        return true;
    }
  }

  /// The token of the note that the outcome leaves.
  std::uint64_t Watch() {
    CheckProcess(process);
    if (token == 0) {
      token = Notes::NewToken();
      WithoutGil([this] { ticket.OnOutcome([id = token](velta::Outcome, velta::Reason) { Notes::Of().Done(id); }); });
    }
    return token;
  }
};

void CheckJoints(const SendPacket& command, int joints) {
  if (command.jointNum != joints) {
    BadArgument("the command is for " + std::to_string(command.jointNum) + " joints, the arm has " +
                std::to_string(joints));
  }
}

/// Sends a copy of the command, which other threads may change meanwhile, without the GIL.
/// @param send  from packet and Confirm to Ticket
template <typename Send>
PyTicket SendCopy(const SendPacket& command, int joints, bool confirm, Send send) {
  CheckJoints(command, joints);
  return WithoutGil([&send, confirm, copy = command] {
    return PyTicket{send(copy, confirm ? Confirm::kYes : Confirm::kNo), confirm};
  });
}

struct PySource {
  Source source;
  int joints;
  unsigned process = ProcessNumber();

  PyTicket Send(const SendPacket& command, bool confirm) {
    CheckProcess(process);
    return SendCopy(command, joints, confirm, [this](const auto&... given) { return source.Send(given...); });
  }
};

class PySession {
 public:
  explicit PySession(SessionOptions options)
      : feed_(std::make_shared<Feed>(std::max<std::size_t>(options.status_buffer, 1))), joints_(options.joints) {
    try {
      session_ = std::make_unique<Session>(std::move(options));
    } catch (const std::invalid_argument& error) {
      BadArgument(error.what());
    }
    session_->OnStatus([feed = feed_, session = session_.get()](const RecvPacket&) { feed->Pull(*session); });
    session_->OnEvent([feed = feed_](const Event& event) { feed->Report(event); });
  }
  PySession(const PySession&) = delete;
  PySession& operator=(const PySession&) = delete;
  ~PySession() {
    session_.reset();
    feed_->Close();
  }

  unsigned process = ProcessNumber();

  Session& Get() {
    CheckProcess(process);
    return *session_;
  }
  bool IsOfThisProcess() const { return process == ProcessNumber(); }

  void Start() {
    Session& session = Get();
    WithoutGil([&] { session.Start(); });
    DeliverNotes();
  }

  void Stop() {
    Session& session = Get();
    WithoutGil([&] {
      session.Stop();
      feed_->Close();
    });
    DeliverNotes();
  }

  /// @return why there is no status; nothing when there is one
  std::string WaitConnected(py::handle timeout_seconds) {
    Session& session = Get();
    std::string why;
    bool is_final = false;
    const auto look = [&](std::chrono::nanoseconds slice) {
      const auto start = std::chrono::steady_clock::now();
      if (session.WaitConnected(slice, &why)) return true;
      // It returns early when nothing is tried any more.
      is_final = slice > std::chrono::nanoseconds(0) && std::chrono::steady_clock::now() - start < slice / 2;
      return is_final;
    };
    const bool is_connected = WaitInSlices(Timeout(timeout_seconds), look, [&] { return true; }) && !is_final;
    DeliverNotes();
    if (is_connected) return "";
    return why.empty() ? "no status came" : why;
  }

  PyTicket Send(const SendPacket& command, bool confirm) {
    Session& session = Get();
    return SendCopy(command, joints_, confirm, [&session](const auto&... given) { return session.Send(given...); });
  }

  PyTicket SendNewest(const std::string& key, const SendPacket& command, bool confirm) {
    Session& session = Get();
    return SendCopy(command, joints_, confirm, [&](const auto&... given) { return session.SendNewest(key, given...); });
  }

  PySource AddSource(const std::string& name) {
    Session& session = Get();
    return WithoutGil([&] { return PySource{session.AddSource(name), joints_}; });
  }

  std::optional<State> Latest() {
    Session& session = Get();
    std::optional<RecvPacket> packet = WithoutGil([&session] { return session.Latest(); });
    if (!packet) return std::nullopt;
    const std::uint64_t received = ReceivedAt(packet->header);
    return State{std::make_shared<const StampedStatus>(received, std::move(*packet))};
  }

  States Drain() {
    Session& session = Get();
    WithoutGil([&] { feed_->Pull(session); });
    const auto statuses = feed_->statuses.AllFrom(drained_);
    States states(joints_, statuses.size());
    for (const auto& status : statuses) states.Add(status->packet, status->received);
    if (!statuses.empty()) {
      states.left_out = statuses.back()->number + 1 - drained_ - statuses.size();
      drained_ = statuses.back()->number + 1;
    }
    const std::uint64_t missed = feed_->left_out;
    states.left_out += missed - std::exchange(missed_, missed);
    return states;
  }

  py::object Statistics() {
    Session& session = Get();
    return py::module_::import("json").attr("loads")(WithoutGil([&] { return ToJson(session.GetStatistics()); }));
  }

  std::string WriteFlightRecord(const std::string& path) {
    Session& session = Get();
    return WithoutGil([&] {
      std::string why;
      return session.WriteFlightRecord(path, &why) ? std::string() : why;
    });
  }

  StateIterator MakeStates(py::object self, py::handle timeout) {
    Get();
    return {feed_, std::move(self), Timeout(timeout)};
  }
  EventIterator MakeEvents(py::object self, py::handle timeout) {
    Get();
    return {feed_, std::move(self), Timeout(timeout)};
  }

 private:
  /// The newest status may be here before its stamp is.
  std::uint64_t ReceivedAt(const rxHeader_t& header) {
    const auto newest = feed_->statuses.Newest();
    const bool is_it = newest != nullptr && +newest->packet.header.timestamp == +header.timestamp &&
                       +newest->packet.header.hostTimestamp == +header.hostTimestamp;
    return is_it ? newest->received : GetNowTimeStamp();
  }

  std::shared_ptr<Feed> feed_;
  int joints_;
  std::unique_ptr<Session> session_;
  std::uint64_t drained_ = 0;  ///< number of the next status that Drain() returns
  std::uint64_t missed_ = 0;   ///< of feed_->left_out, what a Drain() has reported
};

SessionOptions ReadOptions(const std::string& link, int joints, const py::dict& given) {
  SessionOptions o;
  o.link = link;
  o.joints = joints;
  py::dict rest = py::reinterpret_steal<py::dict>(PyDict_Copy(given.ptr()));
  const auto take = [&rest](const char* name, auto set) {
    if (!rest.contains(name)) return;
    set(py::object(rest[name]));
    PyDict_DelItemString(rest.ptr(), name);
  };
  const auto duration = [&](const char* name, std::chrono::nanoseconds& to) {
    take(name, [&](const py::object& value) { to = Duration(value, name); });
  };
  const auto value = [&](const char* name, auto& to) {
    take(name, [&](const py::object& v) {
      using Value = std::decay_t<decltype(to)>;
      try {
        to = v.cast<Value>();
      } catch (const py::cast_error&) {
        constexpr bool kIsFlag = std::is_same_v<Value, bool>;
        const std::string text = std::string(name) +
                                 (kIsFlag ? " is True or False, not " : " is an integer that fits, not ") +
                                 py::repr(v).cast<std::string>();
        if (PyLong_Check(v.ptr()) == 0) throw py::type_error(text);
        BadArgument(text);
      }
    });
  };
  duration("period", o.period);
  duration("dead_man", o.dead_man);
  duration("silence", o.silence);
  duration("ask", o.ask);
  duration("connect_timeout", o.connect_timeout);
  duration("back_off", o.back_off);
  duration("back_off_limit", o.back_off_limit);
  duration("flight_recorder", o.flight_recorder);
  value("reconnect", o.reconnect);
  value("priority", o.priority);
  value("processor", o.processor);
  value("lock_memory", o.lock_memory);
  value("queue_size", o.queue_size);
  value("status_buffer", o.status_buffer);
  take("flight_record_path",
       [&](const py::object& path) { o.flight_record_path = path.is_none() ? "" : py::str(path).cast<std::string>(); });
  take("on_loss", [&](const py::object& word) {
    const auto text = word.cast<std::string>();
    if (text != "discard" && text != "keep") BadArgument("on_loss is 'discard' or 'keep', not '" + text + "'");
    o.on_loss = text == "keep" ? SessionOptions::OnLoss::kKeep : SessionOptions::OnLoss::kDiscard;
  });
  take("stop", [&](const py::object& packets) {
    for (const py::handle packet : packets) o.stop.push_back(packet.cast<const SendPacket&>());
  });
  if (!rest.empty()) {
    throw py::type_error("there is no option " + py::repr(rest.begin()->first).cast<std::string>());
  }
  return o;
}

py::dict DefaultOptions() {
  const SessionOptions o;
  const auto s = [](std::chrono::nanoseconds d) { return std::chrono::duration<double>(d).count(); };
  py::dict options;
  options["period"] = s(o.period);
  options["dead_man"] = s(o.dead_man);
  options["silence"] = s(o.silence);
  options["ask"] = s(o.ask);
  options["on_loss"] = o.on_loss == SessionOptions::OnLoss::kKeep ? "keep" : "discard";
  options["reconnect"] = o.reconnect;
  options["connect_timeout"] = s(o.connect_timeout);
  options["back_off"] = s(o.back_off);
  options["back_off_limit"] = s(o.back_off_limit);
  options["stop"] = py::tuple();
  options["flight_recorder"] = s(o.flight_recorder);
  options["flight_record_path"] = py::none();
  options["priority"] = o.priority;
  options["processor"] = o.processor;
  options["lock_memory"] = o.lock_memory;
  options["queue_size"] = o.queue_size;
  options["status_buffer"] = o.status_buffer;
  return options;
}

void AddTickets(py::module_& m) {
  py::class_<PyTicket>(m, "Ticket", "The answer to one command. It may outlive the session. `await ticket` is wait().")
      .def(
          "wait", &PyTicket::Wait, py::arg("timeout") = py::none(),
          "Waits until the command was sent, or confirmed if that was asked, and returns True.\n\n"
          "timeout: seconds or a timedelta; None waits for ever. Raises TimeoutError when the command is still pending "
          "then, or was never confirmed; DiscardedError, with the reason, when it will not be sent (again).")
      .def_property_readonly(
          "outcome", [](const PyTicket& t) { return ToPython(t.ticket.Outcome()); },
          "the velta.Outcome, without waiting")
      .def_property_readonly(
          "reason", [](const PyTicket& t) { return ToString(t.ticket.Reason()); },
          "why it was discarded; '' unless it was")
      .def("_watch", &PyTicket::Watch)
      .def("__await__",
           [](const py::object& self) {
             return py::module_::import("velta._notes").attr("wait_ticket")(self).attr("__await__")();
           })
      .def("__repr__", [](const PyTicket& t) {
        const std::string reason = ToString(t.ticket.Reason());
        return std::string("<velta.Ticket: ") + ToString(t.ticket.Outcome()) + (reason.empty() ? "" : ", ") + reason +
               ">";
      });

  py::class_<PySource>(m, "Source",
                       "One of several independent parts of a program that command the arm. Its commands "
                       "are sent in order; those of different sources for different joints share a frame.")
      .def_property_readonly("name", [](const PySource& s) { return s.source.Name(); })
      .def("__repr__", [](const PySource& s) { return "<velta.Source '" + s.source.Name() + "'>"; })
      .def("send", &PySource::Send, py::arg("command"), py::arg("confirm") = false,
           "Queues a copy of the command and returns its Ticket.")
      .def(
          "discard",
          [](PySource& s) {
            CheckProcess(s.process);
            WithoutGil([&] { s.source.Discard(); });
          },
          "Discards what this source has waiting.");
}

void AddStates(py::module_& m) {
  py::class_<State> state(
      m, "State",
      "One status of the arm. Every joint field is a read-only NumPy view of shape (n,) over the "
      "packet's own memory, which lives as long as its last view; values in the controller's units.");
  const auto header = [](const State& s) -> const rxHeader_t& { return s.status->packet.header; };
  state
      .def_property_readonly(
          "time", [=](const State& s) { return +header(s).timestamp; }, "the controller's stamp, as sent (int)")
      .def_property_readonly(
          "host_time", [=](const State& s) { return +header(s).hostTimestamp; },
          "stamp of the command that the controller accepted last (int, ns since the epoch)")
      .def_property_readonly(
          "received", [](const State& s) { return s.status->received; },
          "when the host had it (int, ns since the epoch)")
      .def_property_readonly(
          "duration", [=](const State& s) { return +header(s).duration; }, "a duration that the controller reports")
      .def_property_readonly(
          "joints",
          [](const py::object& self) {
            return ViewRecords(StatusRecord(), self.cast<const State&>().status->packet.joints, self);
          },
          "read-only structured array (n,) with all joint fields")
      .def("__copy__", [](const py::object& self) { return self; })  // nothing of it ever changes
      .def(
          "__deepcopy__", [](const py::object& self, const py::dict&) { return self; }, py::arg("memo"))
      .def(
          "__len__", [](const State& s) { return s.status->packet.joints.size(); }, "joints (n)")
      .def("__repr__", [](const py::object& self) {
        return py::str("<velta.State at {}: position {}>").format(self.attr("time"), self.attr("position"));
      });
  AddFieldViews(state, [](const State& s) -> const RecvPacket& { return s.status->packet; });

  py::class_<StateIterator>(m, "StateIterator", "Every status from its making on, oldest first.")
      .def("__iter__", [](const py::object& self) { return self; })
      .def("__next__", &StateIterator::Next)
      .def_property_readonly("left_out", &StateIterator::LeftOut, "statuses that it came too late for");
  py::class_<EventIterator>(m, "EventIterator",
                            "Every event from its making on, oldest first; for `for` and `async for`.")
      .def("__iter__", [](const py::object& self) { return self; })
      .def("__next__", &EventIterator::Next)
      .def("__aiter__", [](const py::object& self) { return self; })
      .def("__anext__",
           [](const py::object& self) { return py::module_::import("velta._notes").attr("next_event")(self); })
      .def("_try", &EventIterator::Try)
      .def("_watch", &EventIterator::Watch);
}

using SessionClass = py::class_<PySession, std::unique_ptr<PySession, FreeWithoutGil>>;

void AddDeadMan(SessionClass& base) {
  base.def(
          "keep_alive", [](PySession& s) { s.Get().KeepAlive(); },
          "The host is well; the first call arms the dead-man.")
      .def(
          "disarm", [](PySession& s) { s.Get().Disarm(); }, "Disarms the dead-man until the next keep_alive().")
      .def(
          "rearm",
          [](PySession& s) {
            Session& session = s.Get();
            WithoutGil([&] { session.Rearm(); });
          },
          "Takes commands again after the dead-man or stop_arm().")
      .def(
          "stop_arm",
          [](PySession& s) {
            Session& session = s.Get();
            WithoutGil([&] { session.StopArm(); });
          },
          "Stops the arm now as the dead-man does: discards what waits, sends the stop, refuses commands until "
          "rearm().")
      .def_property_readonly(
          "is_dead_man", [](PySession& s) { return s.Get().IsDeadMan(); }, "commands are refused until rearm()")
      .def_property_readonly(
          "is_connected", [](PySession& s) { return s.Get().IsConnected(); }, "the link is up and statuses arrive");
}

void AddSessions(py::module_& m) {
  SessionClass base(m, "SessionBase");
  base.def(py::init([](const std::string& link, int joints, const py::kwargs& options) {
             return new PySession(ReadOptions(link, CheckJointCount(joints), options));
           }),
           py::arg("link"), py::arg("joints"))
      .def("start", &PySession::Start)
      .def("_stop", &PySession::Stop)
      .def("_wait_connected", &PySession::WaitConnected)
      .def("_is_of_this_process", &PySession::IsOfThisProcess)
      .def("_write_flight_record", &PySession::WriteFlightRecord)
      .def("_statistics", &PySession::Statistics)
      .def("send", &PySession::Send, py::arg("command"), py::arg("confirm") = false,
           "Queues a copy of the command, in the order of the calls, and returns its Ticket.\n\n"
           "confirm: the controller is to echo it; nothing else is sent until it has. Never waits.")
      .def("send_newest", &PySession::SendNewest, py::arg("key"), py::arg("command"), py::arg("confirm") = false,
           "Files the command under key; one that still waits there is discarded.")
      .def("source", &PySession::AddSource, py::arg("name"), "A new independent source of commands.")
      .def("latest", &PySession::Latest, "The newest State of this connection, or None before the first one.")
      .def("_drain", [](PySession& s) { return s.Drain().ToPython(); })
      .def(
          "states",
          [](const py::object& self, const py::object& timeout) {
            return self.cast<PySession&>().MakeStates(self, timeout);
          },
          py::arg("timeout") = 1.0,
          "An iterator over every status from now on, oldest first, with a position of its own. Silence for `timeout` "
          "raises TimeoutError; stop() ends it.")
      .def(
          "events",
          [](const py::object& self, const py::object& timeout) {
            return self.cast<PySession&>().MakeEvents(self, timeout);
          },
          py::arg("timeout") = py::none(),
          "An iterator over every event from now on, for `for` and `async for`; stop() ends it.")
      .def("_own_states", [](PySession& s) { return s.MakeStates(py::none(), py::none()); })
      .def("_own_events", [](PySession& s) { return s.MakeEvents(py::none(), py::none()); });
  AddDeadMan(base);
}

}  // namespace

void AddSession(py::module_& m) {
  const auto number = [](auto value) { return static_cast<int>(value); };
  AddEnum(m, "Enum", "Outcome", "What became of a command.",
          {{"PENDING", number(Outcome::kPending)},
           {"SENT", number(Outcome::kSent)},
           {"CONFIRMED", number(Outcome::kConfirmed)},
           {"GAVE_UP", number(Outcome::kGaveUp)},
           {"DISCARDED", number(Outcome::kDiscarded)}});
  AddEnum(m, "Enum", "EventKind", "What a session reports.",
          {{"CONNECTED", number(Event::Kind::kConnected)},
           {"LOST", number(Event::Kind::kLost)},
           {"TRYING", number(Event::Kind::kTrying)},
           {"BACK", number(Event::Kind::kBack)},
           {"DEAD_MAN", number(Event::Kind::kDeadMan)},
           {"REARMED", number(Event::Kind::kRearmed)},
           {"GAVE_UP", number(Event::Kind::kGaveUp)},
           {"OVERRUN", number(Event::Kind::kOverrun)},
           {"NOTICE", number(Event::Kind::kNotice)},
           {"LEFT_OUT", number(Event::Kind::kLeftOut)}});
  AddTickets(m);
  AddStates(m);
  AddSessions(m);
  m.def("_default_options", &DefaultOptions);
  SetLogSink(
      [](LogLevel level, std::string_view line) { Notes::Of().Log(level == LogLevel::kError, std::string(line)); });
  m.def(
      "_wait_notes", [] { return WithoutGil([] { return Notes::Of().Wait(kLong); }); },
      "Waits for a note; False once the interpreter ends.");
  m.def("_deliver_notes", &DeliverNotes);
  m.def("_end_notes", [] { WithoutGil([] { Notes::Of().End(); }); });
}

}  // namespace velta::python
