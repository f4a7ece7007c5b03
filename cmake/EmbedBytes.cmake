# cmake -DFROM=FILE -DTO=FILE.inc -P EmbedBytes.cmake: writes a file's bytes as the initialisers of a C array.
file(READ ${FROM} bytes HEX)
string(REGEX REPLACE "(................................)" "\\1\n" bytes "${bytes}")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
file(WRITE ${TO} "${bytes}\n")
