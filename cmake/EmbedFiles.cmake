# SPDX-License-Identifier: MIT

# Puts the files of FOLDER into a C++ source: cmake -DFOLDER=… -DOUTPUT=… -P EmbedFiles.cmake
# The source defines viewer::pageFiles(), which viewer/page_files.h declares. The bytes are written as numbers, because
# compilers limit the length of a string literal.
file(GLOB_RECURSE files RELATIVE ${FOLDER} ${FOLDER}/*)
list(SORT files)
set(arrays "")
set(rows "")
set(number 0)
foreach(file IN LISTS files)
  file(READ ${FOLDER}/${file} hex HEX)
  string(REGEX REPLACE "(..)" "0x\\1," bytes "${hex}")
  string(REGEX REPLACE "(................................................................................)" "\\1\n"
         bytes "${bytes}")
  string(APPEND arrays "constexpr unsigned char kFile${number}[] = {\n${bytes}0};\n")
  string(APPEND rows "    {\"${file}\", textOf(kFile${number})},\n")
  math(EXPR number "${number} + 1")
endforeach()
string(CONCAT source
  "#include \"viewer/page_files.h\"\n\n#include <cstddef>\n#include <vector>\n\nnamespace viewer {\nnamespace {\n\n${arrays}\n"
  "// Without the zero that ends every array, so that an empty file is one, too.\n"
  "template <std::size_t size>\nstd::string_view textOf(const unsigned char (&bytes)[size]) {\n"
  "  return {reinterpret_cast<const char*>(bytes), size - 1};\n}\n\n}  // namespace\n\n"
  "std::span<const PageFile> pageFiles() {\n  static const std::vector<PageFile> kFiles = {\n${rows}  };\n  return kFiles;\n}\n\n"
  "}  // namespace viewer\n")
file(WRITE ${OUTPUT} "${source}")
