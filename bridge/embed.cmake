# SPDX-License-Identifier: MIT
# cmake -D OUT=page.cpp -D FOLDER=page -P embed.cmake: the page's files as arrays of a C++ source.
set(files "/=index.html=text/html" "/page.css=page.css=text/css" "/page.js=page.js=text/javascript"
          "/plot.js=plot.js=text/javascript" "/worker.js=worker.js=text/javascript"
          "/favicon.svg=favicon.svg=image/svg+xml")
set(arrays "")
set(table "")
foreach(entry IN LISTS files)
  string(REPLACE "=" ";" fields "${entry}")
  list(GET fields 0 path)
  list(GET fields 1 file)
  list(GET fields 2 type)
  string(MAKE_C_IDENTIFIER "k_${file}" name)
  file(READ "${FOLDER}/${file}" bytes HEX)
  string(REGEX REPLACE "(..)" "'\\\\x\\1'," bytes "${bytes}")
  string(APPEND arrays "constexpr char ${name}[] = {${bytes}};\n")
  string(APPEND table "    {\"${path}\", \"${type}; charset=utf-8\", {${name}, sizeof ${name}}},\n")
endforeach()
file(WRITE "${OUT}" "#include \"page.h\"

namespace velta::bridge {
namespace {
${arrays}
constexpr PageFile kFiles[] = {
${table}};
}  // namespace

const PageFile* FindPageFile(std::string_view path) {
  for (const PageFile& file : kFiles) {
    if (file.path == path) return &file;
  }
  return nullptr;
}

}  // namespace velta::bridge
")
