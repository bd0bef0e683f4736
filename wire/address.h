// SPDX-License-Identifier: MIT
#ifndef VELTA_WIRE_ADDRESS_H_
#define VELTA_WIRE_ADDRESS_H_

#include <stdexcept>
#include <string>

#include "velta_link.h"

namespace velta::wire {

/// Why a link did not open or stopped working; one line that names the link.
struct LinkError : std::runtime_error {
  LinkError(const std::string& text, int error_number) : std::runtime_error(text), error(error_number) {}
  int error;  ///< errno; 0 for a name that cannot be resolved
};

/// A link that says nothing useful, or not here; one line that names the link.
struct BadLink : std::invalid_argument {
  using std::invalid_argument::invalid_argument;
};

/// As ParseLinkAddress of the library. Throws BadLink.
LinkAddress ParseLink(const std::string& text);

/// @return link with its host name, if it has one, replaced by a dotted quad, which is all that the library connects to
/// Waits for the answer, five seconds at the most; a requested stop ends the wait. Throws LinkError.
LinkAddress Resolved(LinkAddress link);

/// The reason of a failed system call, after the link's name.
[[noreturn]] void FailLink(const LinkAddress& link, int error);

}  // namespace velta::wire

#endif  // VELTA_WIRE_ADDRESS_H_
