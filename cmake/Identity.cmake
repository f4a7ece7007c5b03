# The release's identity, shown by the console's `show version`. Override at configure time, for example
#   cmake -DVEX_VERSION_TAG=v0.1.0 -DVEX_BUILD_DATE=2026-01-31T08:00:00 ...
set(VEX_VERSION_TAG "v0.0.1" CACHE STRING "version tag of this release")
set(VEX_BUILD_DATE "2025-12-11T16:34:42" CACHE STRING "build date of this release, YYYY-MM-DDThh:mm:ss")

if(NOT VEX_BUILD_DATE MATCHES "^([0-9][0-9][0-9][0-9])-([0-9][0-9])-([0-9][0-9])T([0-9][0-9]):([0-9][0-9]):([0-9][0-9])$")
  message(FATAL_ERROR "VEX_BUILD_DATE is '${VEX_BUILD_DATE}'; write it as YYYY-MM-DDThh:mm:ss")
endif()
set(VEX_BUILD_YEAR ${CMAKE_MATCH_1})
set(VEX_BUILD_MONTH ${CMAKE_MATCH_2})
set(VEX_BUILD_DAY ${CMAKE_MATCH_3})
set(VEX_BUILD_HOUR ${CMAKE_MATCH_4})
set(VEX_BUILD_MINUTE ${CMAKE_MATCH_5})
set(VEX_BUILD_SECOND ${CMAKE_MATCH_6})
string(REGEX REPLACE "^v" "" VEX_PACKAGE_VERSION "${VEX_VERSION_TAG}")
