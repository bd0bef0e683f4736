// SPDX-License-Identifier: MIT
#ifndef VELTA_BRIDGE_TICKER_H_
#define VELTA_BRIDGE_TICKER_H_

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <utility>

namespace velta::bridge {

/// Calls back at a fixed rate, against absolute deadlines; those that were missed are left out.
class Ticker {
 public:
  /// @param hz  above 0
  Ticker(boost::asio::io_context& io, double hz, std::function<void()> tick)
      : timer_(io),
        period_(std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(1 / hz))),
        tick_(std::move(tick)) {}

  void Start() {
    next_ = std::max(next_ + period_, std::chrono::steady_clock::now());
    timer_.expires_at(next_);
    timer_.async_wait([this](const boost::system::error_code& error) {
      if (error) return;
      Start();
      tick_();
    });
  }

  void Stop() { timer_.cancel(); }

 private:
  boost::asio::steady_timer timer_;
  std::chrono::steady_clock::duration period_;
  std::chrono::steady_clock::time_point next_{};
  std::function<void()> tick_;
};

}  // namespace velta::bridge

#endif  // VELTA_BRIDGE_TICKER_H_
