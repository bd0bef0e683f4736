// SPDX-License-Identifier: MIT
#ifndef VELTA_SERIAL_CLIENT_H_
#define VELTA_SERIAL_CLIENT_H_

#include <memory>
#include <string>
#include <vector>

#include "AbstractClient.h"
#include "velta_export.h"

struct termios;

/// Serial link to the controller: a tty in raw mode at any baud rate, its settings restored by Disconnect().
///
/// Standard rates up to 230,400 are set directly, others through the serial driver's custom divisor. The line is set to
/// the 5-bit character size that the controller's adapter expects; adapters without that setting ignore it.
///
/// Units:   bytes; baud_rate in bits per second.
/// Errors:  Connect() is false without a message, and leaves a half-configured descriptor open. Read and Write never
///          return -1, so this link is never reported as lost. Descriptors have no close-on-exec.
/// Threads: as AbstractClient. Write blocks until the device has taken every byte.
class VELTA_API SerialClient : public AbstractClient {
 public:
  /// @param device     path of the tty
  /// @param baud_rate  bits per second; 0 makes Connect() false
  SerialClient(std::string device, unsigned int baud_rate);
  SerialClient(const SerialClient&) = delete;
  SerialClient& operator=(const SerialClient&) = delete;
  ~SerialClient() override;

  bool Init() override;
  bool Connect() override;
  int Disconnect() override;                   ///< 0 before the first Connect(), else the result of close
  int Read(std::vector<char>& data) override;  ///< up to 65,534 bytes; 0 before Init()
  int Write(
      const std::vector<char>& data) override;  ///< sum of the system's counts, failed ones as -1; 0 before Init()

 protected:
  bool is_init_ = false;  ///< Init() succeeded; stays set after Disconnect()
  std::string device;
  unsigned int baud_rate;
  int fd_ = 0;                              ///< 0 means not open
  std::unique_ptr<termios> saved_termios_;  ///< the device's settings before the last Connect()
};

#endif  // VELTA_SERIAL_CLIENT_H_
