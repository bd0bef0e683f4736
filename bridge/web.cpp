// SPDX-License-Identifier: MIT
#include "web.h"

#include <algorithm>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <chrono>
#include <cstdint>
#include <deque>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "gate.h"
#include "page.h"
#include "ticker.h"

namespace velta::bridge {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using asio::ip::tcp;
using beast::error_code;
using std::chrono::seconds;
using std::chrono::steady_clock;
using Text = std::shared_ptr<const std::string>;

constexpr int kMaxConnections = 128;
constexpr int kMaxMessagesPerSecond = 200;
constexpr int kSendBuffer = 64 * 1024;
constexpr std::uint32_t kMaxHead = 8 * 1024;
constexpr std::size_t kMaxAnswers = 256;  ///< that wait for one viewer
constexpr seconds kHeadTime(5);           ///< for a request's head, and for the TLS handshake
constexpr seconds kTokenTime(2);
constexpr seconds kWriteTime(10);
constexpr seconds kIdleTime(30);  ///< without a sign of a viewer's program; it is pinged before

constexpr const char* kPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; worker-src 'self'; img-src 'self'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

using Plain = beast::tcp_stream;
using Tls = beast::ssl_stream<beast::tcp_stream>;

/// A WebSocket, whatever it runs over.
class Viewer {
 public:
  Viewer() = default;
  Viewer(const Viewer&) = delete;
  Viewer& operator=(const Viewer&) = delete;
  virtual ~Viewer() = default;

  virtual void Answer(Text text) = 0;      ///< every one is sent
  virtual void OfferState(Text text) = 0;  ///< only the newest is sent
  virtual void Close(websocket::close_code code, const char* why) = 0;
};

/// What every connection shares.
struct Shared {
  Shared(asio::io_context& context, Hub& the_hub, WebOptions the_options)
      : io(context), hub(the_hub), options(std::move(the_options)), gate({}, "") {}

  void Refuse(const char* reason, const std::string& peer) {
    if (!refusals.Count(reason, peer, steady_clock::now())) return;
    std::cerr << "velta-bridge: refused " << (peer.empty() ? "a peer that is gone" : peer) << ": " << reason
              << std::endl;
  }

  asio::io_context& io;
  Hub& hub;
  WebOptions options;
  Gate gate;
  Refusals refusals;
  std::map<Commander, std::weak_ptr<Viewer>> viewers;
  std::uint64_t next_viewer = 0;
  std::uint64_t slow_viewers = 0;  ///< closed
  int connections = 0;
};

using SharedPtr = std::shared_ptr<Shared>;

/// Counts a connection for as long as it exists, as an HTTP connection and as a viewer.
class Place {
 public:
  explicit Place(SharedPtr shared) : shared_(std::move(shared)) { ++shared_->connections; }
  Place(Place&&) = default;
  Place& operator=(Place&&) = delete;
  ~Place() {
    if (shared_) --shared_->connections;
  }

 private:
  SharedPtr shared_;
};

std::string PeerOf(const Plain& stream) {
  error_code error;
  const auto peer = stream.socket().remote_endpoint(error);
  return error ? std::string() : peer.address().to_string();
}

/// One viewer. Reads one message at a time and writes one at a time: answers first, else the newest state.
template <typename Stream>
class WebSocket final : public Viewer, public std::enable_shared_from_this<WebSocket<Stream>> {
 public:
  WebSocket(SharedPtr shared, Place place, Stream&& stream, bool is_welcome)
      : shared_(std::move(shared)),
        place_(std::move(place)),
        peer_(PeerOf(beast::get_lowest_layer(stream))),
        name_("web " + std::to_string(++shared_->next_viewer)),
        ws_(std::move(stream)),
        timer_(shared_->io),
        is_welcome_(is_welcome) {}

  template <typename Request>
  void Accept(const Request& request) {
    beast::get_lowest_layer(ws_).expires_never();
    websocket::stream_base::timeout timeout{kHeadTime, kIdleTime, true};
    ws_.set_option(timeout);
    ws_.read_message_max(kMaxMessage);
    ws_.auto_fragment(false);  // a state in one piece: every piece is a turn of its own for the viewer's program
    ws_.control_callback([this](websocket::frame_type, beast::string_view) { CountMessage(); });
    ws_.async_accept(request, [self = this->shared_from_this()](error_code error) {
      if (error) return;
      self->Read();
      if (self->is_welcome_)
        self->Join();
      else
        self->WaitForToken();
    });
  }

  void Answer(Text text) override {
    if (answers_.size() >= kMaxAnswers) return EndSlow();
    answers_.push_back(std::move(text));
    Write();
  }

  void OfferState(Text text) override {
    state_ = std::move(text);
    Write();
  }

  void Close(websocket::close_code code, const char* why) override {
    if (is_closing_) return;
    is_closing_ = true;
    Leave();
    ws_.async_close({code, why}, [self = this->shared_from_this()](error_code) { self->Cut(); });
  }

 private:
  void Join() {
    is_welcome_ = true;
    timer_.cancel();
    shared_->viewers.emplace(name_, this->weak_from_this());
    is_joined_ = true;
    Answer(std::make_shared<const std::string>(shared_->hub.ControlFor(name_)));
  }

  void Leave() {
    if (!is_joined_) return;
    is_joined_ = false;
    shared_->viewers.erase(name_);
    shared_->hub.Leave(name_);
  }

  void Cut() {
    is_closing_ = true;
    Leave();
    timer_.cancel();
    beast::get_lowest_layer(ws_).close();
  }

  void EndSlow() {
    if (!is_closing_) ++shared_->slow_viewers;
    Cut();
  }

  void Forbid(const char* reason, websocket::close_code code = websocket::close_code::policy_error) {
    if (is_closing_) return;
    shared_->Refuse(reason, peer_);
    Close(code, reason);
  }

  void WaitForToken() {
    timer_.expires_after(kTokenTime);
    timer_.async_wait([self = this->shared_from_this()](error_code error) {
      if (!error && !self->is_welcome_) self->Forbid("no token");
    });
  }

  /// @return false for more than are allowed in the second that the first one began
  bool CountMessage() {
    const auto now = steady_clock::now();
    if (now - second_ >= seconds(1)) {
      second_ = now;
      messages_ = 0;
    }
    if (++messages_ <= kMaxMessagesPerSecond) return true;
    Forbid("too many messages");
    return false;
  }

  void Read() {
    ws_.async_read(in_, [self = this->shared_from_this()](error_code error, std::size_t) {
      if (error == websocket::error::message_too_big) self->shared_->Refuse("long message", self->peer_);
      if (error) return self->Cut();
      self->Take();
      self->Read();
    });
  }

  void Take() {
    const std::string text = beast::buffers_to_string(in_.data());
    in_.consume(in_.size());
    if (is_closing_ || !CountMessage()) return;
    if (!ws_.got_text()) return Forbid("binary message", websocket::close_code::unknown_data);
    if (NestsDeeperThan(text, kMaxNesting)) return Forbid("deep message");
    const Message message = ParseMessage(text);
    const bool is_token = message.kind == Message::Kind::kToken;
    if (!is_welcome_) {
      if (!is_token || !shared_->gate.IsToken(message.text)) return Forbid(is_token ? "wrong token" : "no token");
      return Join();
    }
    if (is_token) return;  // of a page that need not have sent one
    shared_->hub.Handle(name_, message, [weak = this->weak_from_this()](const std::string& answer) {
      if (const auto self = weak.lock()) self->Answer(std::make_shared<const std::string>(answer));
    });
  }

  void Write() {
    if (is_closing_ || writing_) return;
    if (!answers_.empty()) {
      writing_ = std::move(answers_.front());
      answers_.pop_front();
    } else if (state_) {
      writing_ = std::exchange(state_, nullptr);
    } else {
      return;
    }
    timer_.expires_after(kWriteTime);
    timer_.async_wait([weak = this->weak_from_this()](error_code error) {
      const auto self = weak.lock();
      if (self && !error) self->EndSlow();
    });
    ws_.text(true);
    ws_.async_write(asio::buffer(*writing_), [self = this->shared_from_this()](error_code error, std::size_t) {
      self->timer_.cancel();
      self->writing_.reset();
      if (error) return self->Cut();
      self->Write();
    });
  }

  SharedPtr shared_;
  Place place_;
  std::string peer_;
  Commander name_;
  websocket::stream<Stream> ws_;
  beast::flat_buffer in_;
  asio::steady_timer timer_;  ///< first of the token, then of each write
  std::deque<Text> answers_;
  Text state_;    ///< the one slot for the newest
  Text writing_;  ///< lives until it is written
  steady_clock::time_point second_{};
  int messages_ = 0;  ///< in that second
  bool is_welcome_;
  bool is_joined_ = false;
  bool is_closing_ = false;
};

/// One connection that asks for files and documents, until it becomes a WebSocket.
template <typename Stream>
class Connection final : public std::enable_shared_from_this<Connection<Stream>> {
 public:
  Connection(SharedPtr shared, Stream&& stream)
      : shared_(shared), place_(std::move(shared)), stream_(std::move(stream)), peer_(PeerOf(Lowest())) {
    error_code error;
    const auto local = Lowest().socket().local_endpoint(error);
    if (!error) local_ = local.address().to_string();
  }

  void Run() {
    Lowest().expires_after(kHeadTime);
    if constexpr (std::is_same_v<Stream, Tls>) {
      stream_.async_handshake(asio::ssl::stream_base::server, [self = this->shared_from_this()](error_code error) {
        if (error == beast::error::timeout) self->shared_->Refuse("slow request", self->peer_);
        if (!error) self->Read();
      });
    } else {
      Read();
    }
  }

 private:
  using Response = http::response<http::string_body>;

  Plain& Lowest() { return beast::get_lowest_layer(stream_); }

  void Read() {
    parser_.emplace();
    parser_->header_limit(kMaxHead);
    Lowest().expires_after(kHeadTime);  // for all of it, however slowly it comes
    http::async_read_header(stream_, in_, *parser_, [self = this->shared_from_this()](error_code error, std::size_t) {
      self->OnRequest(error);
    });
  }

  void OnRequest(error_code error) {
    if (error == http::error::end_of_stream || error == asio::error::connection_reset) return End();
    if (error == beast::error::timeout) {  // browsers keep connections for requests to come: nothing has begun there
      if (parser_->got_some()) shared_->Refuse("slow request", peer_);
      return;
    }
    if (error) return Fail(http::status::bad_request, "malformed request");
    const auto& request = parser_->get();
    const char* wrong =
        shared_->gate.Check(View(request[http::field::host]), View(request[http::field::origin]), local_);
    if (request.count(http::field::host) > 1) wrong = "host";
    if (wrong) return Fail(http::status::forbidden, wrong);
    const std::string path(request.target().substr(0, request.target().find('?')));
    if (path == "/ws" && websocket::is_upgrade(request)) return Upgrade();
    if (request.method() != http::verb::get && request.method() != http::verb::head) {
      return Fail(http::status::method_not_allowed, "method");
    }
    Respond(path);
  }

  static std::string_view View(beast::string_view text) { return {text.data(), text.size()}; }

  bool HasToken() const {
    return !shared_->gate.NeedsToken() || shared_->gate.IsBearer(View(parser_->get()[http::field::authorization]));
  }

  void Upgrade() {
    const auto& request = parser_->get();
    const bool has_token = HasToken();
    if (!has_token && request.count(http::field::authorization) > 0) {
      return Fail(http::status::unauthorized, "wrong token");
    }
    const auto viewer = std::make_shared<WebSocket<Stream>>(shared_, std::move(place_), std::move(stream_), has_token);
    viewer->Accept(request);
  }

  void Respond(const std::string& path) {
    if (const PageFile* file = FindPageFile(path)) {
      return Send(http::status::ok, std::string(file->type), std::string(file->content));
    }
    const bool is_state = path == "/api/state";
    if (!is_state && path != "/api/statistics") return Fail(http::status::not_found, "not found");
    if (!HasToken()) {
      const bool has_any = parser_->get().count(http::field::authorization) > 0;
      return Fail(http::status::unauthorized, has_any ? "wrong token" : "no token");
    }
    constexpr const char* kJson = "application/json";
    if (!is_state) return Send(http::status::ok, kJson, shared_->hub.Statistics());
    const Text state = shared_->hub.State();
    if (state) return Send(http::status::ok, kJson, *state);
    Send(http::status::service_unavailable, kJson, ErrorText("no status from the arm"));
  }

  void Fail(http::status status, const char* reason) {
    shared_->Refuse(reason, peer_);
    const bool keeps = status == http::status::not_found;
    Send(status, "application/json", ErrorText(reason), keeps);
  }

  void Send(http::status status, const std::string& type, std::string body, bool may_keep = true) {
    const auto& request = parser_->get();
    response_.emplace(status, 11);
    Response& response = *response_;
    response.set(http::field::content_type, type);
    response.set("Content-Security-Policy", kPolicy);
    response.set("X-Content-Type-Options", "nosniff");
    response.set("X-Frame-Options", "DENY");
    response.set("Referrer-Policy", "no-referrer");
    response.set(http::field::cache_control, "no-store");
    if (status == http::status::unauthorized) response.set(http::field::www_authenticate, "Bearer");
    if (status == http::status::method_not_allowed) response.set(http::field::allow, "GET, HEAD");
    response.keep_alive(may_keep && parser_->is_done() && request.keep_alive());  // a body is not read
    response.body() = std::move(body);
    response.prepare_payload();
    if (request.method() == http::verb::head) response.body().clear();
    Lowest().expires_after(kWriteTime);
    http::async_write(stream_, response, [self = this->shared_from_this()](error_code error, std::size_t) {
      if (error) return;
      if (!self->response_->keep_alive()) return self->End();
      self->Read();
    });
  }

  void End() {
    error_code ignored;
    Lowest().socket().shutdown(tcp::socket::shutdown_send, ignored);
  }

  SharedPtr shared_;
  Place place_;
  Stream stream_;
  std::string peer_, local_;
  beast::flat_buffer in_{std::size_t{2} * kMaxHead};
  std::optional<http::request_parser<http::empty_body>> parser_;
  std::optional<Response> response_;
};

}  // namespace

struct Web::Parts : std::enable_shared_from_this<Web::Parts> {
  Parts(asio::io_context& io, Hub& hub, WebOptions options)
      : shared(std::make_shared<Shared>(io, hub, std::move(options))),
        acceptor(io),
        pause(io),
        ticker(io, shared->options.hz, [this] { ShowState(); }) {}

  void Listen();
  void Accept();
  void ShowState();
  template <typename Visit>
  void ForEachViewer(Visit visit) {
    for (const auto& [name, weak] : std::map(shared->viewers)) {  // a copy: one that is slow leaves meanwhile
      if (const auto viewer = weak.lock()) visit(name, *viewer);
    }
  }

  SharedPtr shared;
  tcp::acceptor acceptor;
  asio::steady_timer pause;
  std::optional<asio::ssl::context> tls;
  Text shown;  ///< the last state
  Ticker ticker;
};

void Web::Parts::Listen() {
  const WebOptions& options = shared->options;
  const std::string where = options.host + ":" + options.port;
  error_code error;
  const auto found = tcp::resolver(shared->io).resolve(options.host, options.port, tcp::resolver::passive, error);
  if (error || found.empty()) throw std::runtime_error("cannot listen on " + where + ": " + error.message());
  const tcp::endpoint endpoint = found.begin()->endpoint();
  const bool has_tls = !options.certificate.empty() && !options.key.empty();
  if (!endpoint.address().is_loopback() && !options.insecure && (options.token.empty() || !has_tls)) {
    throw std::runtime_error(
        where + " can be reached from other machines: give --token-file, --tls-cert and --tls-key, " + "or --insecure");
  }
  if (has_tls) {
    tls.emplace(asio::ssl::context::tls_server);
    tls->set_options(asio::ssl::context::no_tlsv1 | asio::ssl::context::no_tlsv1_1);
    tls->use_certificate_chain_file(options.certificate, error);
    if (error) throw std::runtime_error("bad certificate " + options.certificate + ": " + error.message());
    tls->use_private_key_file(options.key, asio::ssl::context::pem, error);
    if (error) throw std::runtime_error("bad key " + options.key + ": " + error.message());
  }
  std::vector<std::string> names = options.allow_hosts;
  names.insert(names.end(), {"localhost", options.host, endpoint.address().to_string()});
  shared->gate = Gate(std::move(names), options.token);
  acceptor.open(endpoint.protocol());
  acceptor.set_option(tcp::acceptor::reuse_address(true));
  acceptor.bind(endpoint, error);
  if (!error) acceptor.listen(kMaxConnections, error);
  if (error) throw std::runtime_error("cannot listen on " + where + ": " + error.message());
}

void Web::Parts::Accept() {
  acceptor.async_accept([self = shared_from_this()](error_code error, tcp::socket socket) {
    if (error == asio::error::operation_aborted) return;
    if (error) {  // no descriptor is left, for instance
      self->pause.expires_after(std::chrono::milliseconds(100));
      self->pause.async_wait([self](error_code) { self->Accept(); });
      return;
    }
    Plain stream(std::move(socket));
    if (self->shared->connections >= kMaxConnections) {
      self->shared->Refuse("too many connections", PeerOf(stream));
    } else {
      stream.socket().set_option(asio::socket_base::send_buffer_size(kSendBuffer), error);
      stream.socket().set_option(tcp::no_delay(true), error);
      if (self->tls) {
        std::make_shared<Connection<Tls>>(self->shared, Tls(std::move(stream), *self->tls))->Run();
      } else {
        std::make_shared<Connection<Plain>>(self->shared, std::move(stream))->Run();
      }
    }
    self->Accept();
  });
}

void Web::Parts::ShowState() {
  if (shared->viewers.empty()) return;
  const Text state = shared->hub.State();
  if (!state || state == shown) return;
  shown = state;
  const Text text = std::make_shared<const std::string>(StateText(*state));
  ForEachViewer([&](const Commander&, Viewer& viewer) { viewer.OfferState(text); });
}

Web::Web(asio::io_context& io, Hub& hub, WebOptions options)
    : parts_(std::make_shared<Parts>(io, hub, std::move(options))) {
  parts_->Listen();
  parts_->Accept();
  parts_->ticker.Start();
}

Web::~Web() = default;

std::string Web::Url() const {
  const auto endpoint = parts_->acceptor.local_endpoint();
  const std::string host = endpoint.address().to_string();
  return std::string(parts_->tls ? "https://" : "http://") + (endpoint.address().is_v6() ? "[" + host + "]" : host) +
         ":" + std::to_string(endpoint.port()) + "/";
}

void Web::Stop() {
  error_code ignored;
  parts_->acceptor.close(ignored);
  parts_->pause.cancel();
  parts_->ticker.Stop();
  parts_->ForEachViewer(
      [](const Commander&, Viewer& viewer) { viewer.Close(websocket::close_code::going_away, "the bridge ends"); });
}

void Web::ShowControl() {
  parts_->ForEachViewer([this](const Commander& name, Viewer& viewer) {
    viewer.Answer(std::make_shared<const std::string>(parts_->shared->hub.ControlFor(name)));
  });
}

void Web::ShowEvent(const std::string& text) {
  const Text shared = std::make_shared<const std::string>(text);
  parts_->ForEachViewer([&](const Commander&, Viewer& viewer) { viewer.Answer(shared); });
}

void Web::AddStatistics(nlohmann::json& to) const {
  const Shared& shared = *parts_->shared;
  to["web"] = {{"connections", shared.connections},
               {"viewers", shared.viewers.size()},
               {"slow_viewers", shared.slow_viewers},
               {"refused", shared.refusals.ByReason()}};
}

}  // namespace velta::bridge
