include(${CMAKE_CURRENT_LIST_DIR}/klbaseTargets.cmake)
