// SPDX-License-Identifier: MIT
#ifndef VELTA_BRIDGE_PAGE_H_
#define VELTA_BRIDGE_PAGE_H_

#include <string_view>

namespace velta::bridge {

/// One file of the page, as it is served.
struct PageFile {
  std::string_view path;  ///< "/page.js"
  std::string_view type;  ///< "text/javascript; charset=utf-8"
  std::string_view content;
};

/// @return the file at the path; null if there is none. The files are part of the program.
const PageFile* FindPageFile(std::string_view path);

}  // namespace velta::bridge

#endif  // VELTA_BRIDGE_PAGE_H_
