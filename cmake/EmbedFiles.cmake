# Turns files into a C++ source holding their bytes, so that a program serves them without
# reading anything at run time. Run as a script:
#   cmake -DOUTPUT=out.cpp -DBASE=dir -DFILES="a|b" -DNAMESPACE=ns -P EmbedFiles.cmake
# The source defines `const qv::EmbeddedFile ns::kEmbeddedFiles[]` (path relative to BASE with a
# leading "/", bytes, size) and `ns::kEmbeddedFileCount`; EmbeddedFile is declared by the
# including program's header "EmbeddedFiles.h".
set(body "// Generated from ${BASE} by cmake/EmbedFiles.cmake; do not edit.\n#include \"EmbeddedFiles.h\"\n\nnamespace ${NAMESPACE} {\nnamespace {\n")
string(REPLACE "|" ";" FILES "${FILES}")
set(entries "")
set(index 0)
foreach(file ${FILES})
  file(READ "${file}" hex HEX)
  string(LENGTH "${hex}" hexLength)
  math(EXPR size "${hexLength} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  string(REGEX REPLACE "((0x..,){32})" "\\1\n" bytes "${bytes}")
  file(RELATIVE_PATH relative "${BASE}" "${file}")
  string(APPEND body "const unsigned char kFile${index}[] = {\n${bytes}0x00};\n")
  string(APPEND entries "  {\"/${relative}\", kFile${index}, ${size}},\n")
  math(EXPR index "${index} + 1")
endforeach()
string(APPEND body "}  // namespace\n\nconst EmbeddedFile kEmbeddedFiles[] = {\n${entries}};\nconst std::size_t kEmbeddedFileCount = ${index};\n\n}  // namespace ${NAMESPACE}\n")
file(WRITE "${OUTPUT}.tmp" "${body}")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
