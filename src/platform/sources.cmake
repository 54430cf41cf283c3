list(APPEND KAVO_SOURCES platform/platform.cpp platform/report_message.cpp
  platform/wav_header.cpp)
if(WIN32)
  list(APPEND KAVO_SOURCES platform/platform_windows.cpp)
else()
  list(APPEND KAVO_SOURCES platform/platform_posix.cpp)
endif()
