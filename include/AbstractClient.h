// SPDX-License-Identifier: MIT
#ifndef VELTA_ABSTRACT_CLIENT_H_
#define VELTA_ABSTRACT_CLIENT_H_

#include <vector>

#include "velta_export.h"

/// One byte link to the controller. Reads and writes are polled and never wait; only connecting does.
///
/// Errors:  results and log lines (see velta_log.h); nothing is thrown but allocation failures.
/// Threads: no lock. One thread at a time, except that one Read and one Write may overlap.
class VELTA_API AbstractClient {
 public:
  virtual ~AbstractClient();

  /// Prepares the link and opens it through Connect().
  virtual bool Init() = 0;

  /// Opens the link. An earlier connection is not closed: call Disconnect() first.
  virtual bool Connect() = 0;

  /// Closes the link. @return the system's result, which no caller needs
  virtual int Disconnect() = 0;

  /// Fetches what has arrived.
  /// @param[out] data the bytes, when the result is positive
  /// @return bytes fetched; 0 when nothing came or what came was discarded; -1 when the link is unusable
  virtual int Read(std::vector<char>& data) = 0;

  /// Sends bytes in one piece.
  /// @return bytes taken; 0 when the link is not writable now; -1 when the link is unusable
  virtual int Write(const std::vector<char>& data) = 0;
};

#endif  // VELTA_ABSTRACT_CLIENT_H_
