# Writes the default machine profile into a C++ source as a byte array.
file(READ "${IN}" hex HEX)
string(LENGTH "${hex}" len)
math(EXPR n "${len} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
file(WRITE "${OUT}" "// Generated from machines/default.json; do not edit.\n#include <cstddef>\nnamespace libipmi {\nextern const unsigned char kDefaultProfile[] = {${bytes} 0};\nextern const std::size_t kDefaultProfileSize = ${n};\n}\n")
