// SPDX-License-Identifier: MIT
#ifndef VELTA_VERSION_H_
#define VELTA_VERSION_H_

#include <string>

#include "velta_export.h"

/// The library's version in three texts, set when the library is loaded and never changed afterwards.
/// MasterControllerClient::GetVersion() joins them with points.
namespace VELTA_VERSION {
extern VELTA_API const std::string major;     ///< "2"; grows with a change that breaks linked programs
extern VELTA_API const std::string minor;     ///< "1"; grows with additions
extern VELTA_API const std::string revision;  ///< "0"; grows with corrections
}  // namespace VELTA_VERSION

#endif  // VELTA_VERSION_H_
