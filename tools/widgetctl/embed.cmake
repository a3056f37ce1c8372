# cmake -DINPUT=file -DOUTPUT=header -DNAME=kName -P embed.cmake
#
# Writes a header with the bytes of INPUT as the array widgetctl::NAME.
file(READ "${INPUT}" bytes HEX)
string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")
string(REPEAT "[^,]+," 16 row)
string(REGEX REPLACE "(${row})" "\\1\n" bytes "${bytes}")
file(WRITE "${OUTPUT}" "namespace widgetctl {
inline constexpr unsigned char ${NAME}[] = {
${bytes}};
}  // namespace widgetctl
")
